// The CP end of a dump node for unit tests: a socket pair (one message per
// read, working poll) whose far end a thread drives through a script of
// "receive one message from the AP" and "send one message" actions.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dump/udl.h"

namespace cp_peer {

using Bytes = std::vector<uint8_t>;

inline Bytes le(uint32_t word) {
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
}

inline Bytes info(uint32_t dump_size, uint32_t num_steps, uint32_t reason_len) {
    const udl::ul_info i = {dump_size, num_steps, reason_len};
    Bytes b(sizeof(i));
    memcpy(b.data(), &i, sizeof(i));
    return b;
}

// A frame whose header says `size` whatever the payload that follows it.
inline Bytes frame(uint32_t command, uint32_t num_frames, uint32_t curr_frame, uint32_t size,
                   const Bytes& payload) {
    const udl::ul_frame_header h = {command, num_frames, curr_frame, size};
    const auto* head = reinterpret_cast<const uint8_t*>(&h);
    Bytes b(head, head + sizeof(h));
    b.reserve(sizeof(h) + payload.size());
    std::copy(payload.begin(), payload.end(), std::back_inserter(b));
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

class CpPeer {
  public:
    // cp is the CP end of the pair; the peer owns it.
    explicit CpPeer(int cp) : cp_(cp) {}
    ~CpPeer() {
        stop();
        close(cp_);
    }
    CpPeer(const CpPeer&) = delete;
    CpPeer& operator=(const CpPeer&) = delete;

    // Waits for one message from the AP and records it.
    CpPeer& take() {
        script_.push_back({true, {}});
        return *this;
    }
    CpPeer& give(const Bytes& msg) {
        script_.push_back({false, msg});
        return *this;
    }

    void start() {
        thread_ = std::thread([this] { run(); });
    }

    // For a script that runs to its end by itself.
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // Ends the script wherever it waits: the AP is done with the node.
    void stop() {
        if (thread_.joinable()) {
            shutdown(cp_, SHUT_RDWR);
            thread_.join();
        }
    }

    // The words the AP wrote, in order (after join or stop).
    std::vector<uint32_t> words() const {
        std::vector<uint32_t> out;
        for (const Bytes& m : taken_) {
            uint32_t w = 0xFFFFFFFF;  // anything but one word
            if (m.size() == sizeof(w)) {
                memcpy(&w, m.data(), sizeof(w));
            }
            out.push_back(w);
        }
        return out;
    }

  private:
    struct Action {
        bool take;
        Bytes msg;
    };

    void run() {
        for (const Action& a : script_) {
            if (a.take) {
                uint8_t buf[64];
                ssize_t n = recv(cp_, buf, sizeof(buf), 0);
                if (n <= 0) {
                    return;
                }
                taken_.emplace_back(buf, buf + n);
            } else if (send(cp_, a.msg.data(), a.msg.size(), MSG_NOSIGNAL) < 0) {
                return;
            }
        }
    }

    int cp_;
    std::vector<Action> script_;
    std::vector<Bytes> taken_;
    std::thread thread_;
};

}  // namespace cp_peer
