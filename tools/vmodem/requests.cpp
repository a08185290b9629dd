#include "requests.h"

#include <iterator>

#include "boot/cpif.h"

namespace vmodem {
namespace {

constexpr Request kRequests[] = {
    {IOCTL_POWER_ON, "POWER_ON", Node::Boot},
    {IOCTL_POWER_OFF, "POWER_OFF", Node::Boot},
    {IOCTL_POWER_RESET, "POWER_RESET", Node::Boot},
    {IOCTL_START_CP_BOOTLOADER, "START_CP_BOOTLOADER", Node::Boot},
    {IOCTL_COMPLETE_NORMAL_BOOTUP, "COMPLETE_NORMAL_BOOTUP", Node::Boot},
    {IOCTL_GET_MODEM_STATE, "GET_MODEM_STATE", Node::Boot},
    {IOCTL_SET_MINIDUMP_MODE, "SET_MINIDUMP_MODE", Node::Boot},
    // Issued on the dump node, or on the boot node when forced without one.
    {IOCTL_ENTER_UPLOAD_MODE, "ENTER_UPLOAD_MODE", Node::Dump},
    {IOCTL_TRIGGER_AP_WDTRESET, "TRIGGER_AP_WDTRESET", Node::Boot},
    {IOCTL_LOAD_CP_IMAGE, "LOAD_CP_IMAGE", Node::Boot},
    {IOCTL_GET_SRINFO, "GET_SRINFO", Node::Boot},
    {IOCTL_SET_SRINFO, "SET_SRINFO", Node::Boot},
    {IOCTL_NOTIFY_BOOTUP_FAIL, "NOTIFY_BOOTUP_FAIL", Node::Boot},
    {IOCTL_NOTIFY_BOOTUP_DONE, "NOTIFY_BOOTUP_DONE", Node::Boot},
    {IOCTL_GET_LOG_DUMP, "GET_LOG_DUMP", Node::Dump},
    {IOCTL_CHECK_SECURITY, "CHECK_SECURITY", Node::Boot},
    {IOCTL_GET_CP_CRASH_REASON, "GET_CP_CRASH_REASON", Node::Dump},
    {IOCTL_GET_CPIF_VERSION, "GET_CPIF_VERSION", Node::Dump},
    {IOCTL_GET_RFBOARD_DISCONNECT, "GET_RFBOARD_DISCONNECT", Node::Boot},
    {IOCTL_GET_NUM_LOG_DUMP, "GET_NUM_LOG_DUMP", Node::Dump},
    {IOCTL_GET_BTL_SIZE, "GET_BTL_SIZE", Node::Memshare},
    {IOCTL_SET_BTL_SIZE, "SET_BTL_SIZE", Node::Memshare},
};

}  // namespace

const char* node_name(Node node) {
    switch (node) {
        case Node::Boot:
            return "boot";
        case Node::Dump:
            return "dump";
        case Node::Memshare:
            return "memshare";
    }
    return "?";
}

const Request* find_request(uint32_t code) {
    for (const Request& r : kRequests) {
        if (r.code == code) {
            return &r;
        }
    }
    return nullptr;
}

const Request* find_request(std::string_view name) {
    if (name.starts_with("IOCTL_")) {
        name.remove_prefix(6);
    }
    for (const Request& r : kRequests) {
        if (name == r.name) {
            return &r;
        }
    }
    return nullptr;
}

static_assert(std::size(kRequests) == 22);

}  // namespace vmodem
