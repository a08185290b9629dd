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

#include "dump/udl.h"

namespace cp_peer {

using Bytes = std::vector<uint8_t>;

inline Bytes le(uint32_t word) {
    Bytes b(4);
    memcpy(b.data(), &word, 4);
    return b;
}

inline Bytes info(uint32_t dump_size, uint32_t num_steps, uint32_t reason_len) {
    const udl::ul_info i = {dump_size, num_steps, reason_len};
    const auto* p = reinterpret_cast<const uint8_t*>(&i);
    return Bytes(p, p + sizeof(i));
}

// A frame whose header says `size` whatever the payload that follows it.
inline Bytes frame(uint32_t command, uint32_t num_frames, uint32_t curr_frame, uint32_t size,
                   const Bytes& payload) {
    const udl::ul_frame_header h = {command, num_frames, curr_frame, size};
    const auto* p = reinterpret_cast<const uint8_t*>(&h);
    Bytes b(p, p + sizeof(h));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// Payload bytes that differ per step, frame and position, so a misplaced or
// lost frame shows in the file.
inline Bytes pattern(uint32_t step, uint32_t curr_frame, size_t size) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) {
        b[i] = static_cast<uint8_t>((i * 31) ^ (i >> 8) ^ (step * 7) ^ (curr_frame * 13));
    }
    return b;
}

// ap is the daemon's descriptor of the node, cp the far end.
struct Node {
    Node() {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        ap = sv[0];
        cp = sv[1];
        // Room for a whole dump queued at once and every request word of it
        // (root may exceed the default).
        const int room = 16 << 20;
        for (int fd : sv) {
            EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)), 0);
        }
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
    int ap = -1, cp = -1;
    // Messages the AP left unread.
    int unread() const {
        int n = 0;
        uint8_t buf[16];
        while (recv(ap, buf, sizeof(buf), MSG_DONTWAIT) > 0) {
            ++n;
        }
        return n;
    }
};

}  // namespace cp_peer
