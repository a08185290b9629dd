// The driver's request table as the virtual modem serves it: code, name,
// the node it belongs to and whether an _IO request passes a pointer.
#pragma once

#include <cstdint>
#include <string_view>

namespace vmodem {

enum class Node : uint8_t { Boot, Dump, Memshare };
inline constexpr int kNodeCount = 3;

const char* node_name(Node node);

struct Request {
    uint32_t code;
    const char* name;  // without the IOCTL_ prefix
    Node node;
};

// nullptr for a code the driver does not know.
const Request* find_request(uint32_t code);
// Accepts the name with or without "IOCTL_"; nullptr when unknown.
const Request* find_request(std::string_view name);

// Argument size and direction encoded in a request code.
constexpr uint32_t ioc_size(uint32_t code) {
    return (code >> 16) & 0x3FFF;
}
constexpr bool ioc_writes_to_driver(uint32_t code) {
    return (code >> 30) & 1;
}
constexpr bool ioc_reads_from_driver(uint32_t code) {
    return (code >> 30) & 2;
}

}  // namespace vmodem
