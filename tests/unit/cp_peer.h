// The CP end of a boot or dump node for unit tests: a socket pair (one message
// per read, working poll). The CP queues its messages before the AP reads;
// what the AP wrote is read back afterwards.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace cp_peer {

using Bytes = std::vector<uint8_t>;

// The bytes of a word or of a structure the CP sends, as they lie in memory.
template <typename T>
Bytes raw(const T& value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}
inline Bytes le(uint32_t word) {
    return raw(word);
}

// ap is the daemon's descriptor of the node, cp the far end.
struct Node {
    Node() {
        int sv[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        ap = sv[0];
        cp = sv[1];
    }
    ~Node() {
        close(ap);
        close(cp);
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    Node& give(const Bytes& msg) {
        EXPECT_EQ(send(cp, msg.data(), msg.size(), MSG_DONTWAIT), static_cast<ssize_t>(msg.size()));
        return *this;
    }
    // The messages the AP wrote since the last call, each as a word
    // (0xFFFFFFFF for one that is not a single word).
    std::vector<uint32_t> words() const {
        std::vector<uint32_t> out;
        uint8_t buf[64];
        for (ssize_t n; (n = recv(cp, buf, sizeof(buf), MSG_DONTWAIT)) >= 0;) {
            uint32_t w = 0xFFFFFFFF;
            if (n == 4) {
                memcpy(&w, buf, 4);
            }
            out.push_back(w);
        }
        return out;
    }
    // Messages the AP left unread (they are consumed).
    int unread() const {
        int n = 0;
        uint8_t buf[16];
        while (recv(ap, buf, sizeof(buf), MSG_DONTWAIT) > 0) {
            ++n;
        }
        return n;
    }
    int ap = -1, cp = -1;
};

}  // namespace cp_peer
