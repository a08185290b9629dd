// Transport of the upload/download protocol: command words written to the
// boot or dump node, the CP's answer words, and the CP's uploads on the dump
// node. Every wait for the CP is one poll right before the read it guards.
#include "dump/protocol.h"

#include <poll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/udl.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

// The boot record's descriptor for OPERATION_BOOT, the dump record's for any
// other value. Without a controller there is no node: -1 makes the calls on
// it fail like on a closed node.
int node_fd(operation op) {
    if (op == OPERATION_BOOT) {
        const std_boot* b = Container::getStdBoot();
        return b != nullptr ? b->fd : -1;
    }
    const std_dump* d = Container::getStdDump();
    return d != nullptr ? d->fd : -1;
}

}  // namespace

int ProtocolTarn::std_udl_poll(operation op, short events, long timeout_ms) {
    struct pollfd pfd = {node_fd(op), events, 0};
    int ret = poll(&pfd, 1, static_cast<int>(timeout_ms));
    // Any awaited event counts, even when it comes with a hang-up.
    if ((pfd.revents & events) != 0) {
        return 0;
    }
    unsigned ev = static_cast<unsigned short>(events);
    unsigned rev = static_cast<unsigned short>(pfd.revents);
    if (ret > 0) {
        LOGI("ERR! poll fail (events 0x%X != revents 0x%X)\n", ev, rev);
    } else if (ret == 0) {
        LOGI("ERR! poll fail (events 0x%X, TIMEOUT)\n", ev);
    } else {
        LOGE("ERR! poll fail (events 0x%X)\n", ev);
    }
    return -5;
}

int Protocol::std_udl_req_resp(operation op, unsigned request, unsigned expected) {
    const int fd = node_fd(op);
    int ret = 0;
    if (request != 0) {
        LOGI("request:0x%08X\n", request);
        const uint32_t word = request;
        ssize_t n = write(fd, &word, sizeof(word));
        if (n < 0) {
            LOGE("ERR! write fail\n");
            ret = static_cast<int>(n);
        }
    }
    if (ret == 0 && expected != 0) {
        ret = std_udl_poll(op, POLLIN, udl::kPollTimeoutMs);
        if (ret < 0) {
            LOGI("ERR! std_udl_poll fail\n");
        }
    }
    if (ret == 0 && expected != 0) {
        // A short answer leaves its missing bytes zero; an end of file is an
        // answer of 0.
        uint32_t answer = 0;
        ssize_t n = read(fd, &answer, sizeof(answer));
        if (n < 0) {
            LOGE("ERR! read fail\n");
            ret = static_cast<int>(n);
        } else if (answer != expected) {
            LOGI("ERR! resp 0x%X != exp 0x%X\n", answer, expected);
            ret = -14;
        }
    }
    if (ret < 0) {
        LOGI("ERR! request:0x%08X expected:0x%08X\n", request, expected);
    }
    return ret;
}

int ProtocolTarn::std_udl_stage_start(operation op, unsigned stage) {
    const unsigned req = udl::stage_start_request(stage);
    const unsigned exp = udl::stage_start_response(stage);
    int ret = std_udl_req_resp(op, req, exp);
    if (ret < 0) {
        LOGI("ERR! [stage %d] START fail (req:0x%X exp:0x%X)\n", static_cast<int>(stage), req, exp);
    }
    return ret;
}

int ProtocolTarn::std_udl_stage_done(operation op, unsigned stage) {
    const unsigned req = udl::stage_done_request(stage);
    const unsigned exp = udl::stage_done_response(stage);
    int ret = std_udl_req_resp(op, req, exp);
    if (ret < 0) {
        LOGI("ERR! [stage %d] DONE fail (req:0x%X exp:0x%X)\n", static_cast<int>(stage), req, exp);
    }
    return ret;
}

int Protocol::std_ul_rx_frame(void* buf, unsigned count) {
    int ret = std_udl_poll(OPERATION_DUMP, POLLIN, udl::kPollTimeoutMs);
    if (ret < 0) {
        LOGE_DUMP("ERR! DUMP std_udl_poll fail\n");
        return ret;
    }
    // One read hands over one message, frame or chunk; the caller decides
    // what its length means.
    ssize_t n = read(node_fd(OPERATION_DUMP), buf, count);
    if (n < 0) {
        LOGE_DUMP("ERR! DUMP read fail\n");
    }
    return static_cast<int>(n);
}

int ProtocolTarn::std_boot_finish_handshake() {
    // The CP boot loader acknowledges the end of the handshake stage, then
    // the start of the finish stage; only then is it running the main image.
    int ret = std_udl_stage_done(OPERATION_BOOT, udl::kStageHandshake);
    if (ret >= 0) {
        ret = std_udl_stage_start(OPERATION_BOOT, udl::kStageFinish);
    }
    if (ret < 0) {
        LOGI("ERR! std_udl_stage_done fail\n");
        return ret;
    }
    return 0;
}

int ProtocolTarn::std_reboot_system(const char* reason) {
    char value[PROPERTY_VALUE_MAX] = {};
    snprintf(value, sizeof(value), "reboot,%s", reason);
    int ret = property_set("sys.powerctl", value);
    if (ret < 0) {
        LOGI("ERR! failed to setprop [sys.powerctl](%s)\n", value);
    }
    return ret;
}
