// Streaming the image parts into modem memory, and the driver's secure-boot
// checks of what was loaded.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "boot/boot_dump.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

constexpr const char kByStage[] = "load_cp_image_by_stage";

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};

// Sends the chunks of one stage from its current file position. Returns 0,
// or the failing call's result (-14 for a short read).
int send_chunks(const std_boot& b, unsigned i, const std_dload_control& st, cp_image& img,
                uint8_t* buf) {
    const int src = static_cast<int32_t>(st.fd);
    uint32_t sent = 0;
    for (;;) {
        uint32_t remaining = st.b_size - sent;
        bool last = remaining < udl::kImageChunkSize;
        img.len = last ? remaining : udl::kImageChunkSize;
        ssize_t n = read(src, buf, img.len);
        if (n < 0) {
            LOGE_AS(kByStage, "ERR! read fail at stage %u\n", i);
            return static_cast<int>(n);
        }
        if (static_cast<uint32_t>(n) != img.len) {
            LOGI_AS(kByStage, "ERR! read %d != img.len %d\n", static_cast<int>(n),
                    static_cast<int>(img.len));
            return -14;
        }
        int ret = ioctl(b.fd, IOCTL_LOAD_CP_IMAGE, &img);
        if (ret != 0) {
            LOGE_AS(kByStage, "ERR! IOCTL_LOAD_CP_IMAGE fail (%u,%d)\n", i, ret);
            return ret;
        }
        if (last) {
            return 0;
        }
        img.m_offset += img.len;
        sent += img.len;
    }
}

// One stage through one chunk buffer, freed on every path. A positive
// driver answer ends this stage only; a negative one ends the whole load.
int load_cp_image_by_stage(const std_boot& b, unsigned i, cp_boot_mode mode) {
    const std_dload_control& st = b.stage[i];
    std::unique_ptr<uint8_t, FreeDeleter> buf(static_cast<uint8_t*>(malloc(udl::kImageChunkSize)));
    if (!buf) {
        LOGI_AS(kByStage, "ERR! malloc(%d) fail\n", static_cast<int>(st.b_size));
        return -12;
    }
    cp_image img = {};
    img.image_buf = reinterpret_cast<uintptr_t>(buf.get());
    img.size = st.b_size;
    img.m_offset = st.m_off;
    img.b_offset = st.b_off;
    img.mode = static_cast<uint32_t>(mode);
    img.len = udl::kImageChunkSize;
    LOGI_AS(kByStage, "stage=%u(%u), b_off=0x%08x, m_off=0x%08x, b_size=0x%08x, mode=0x%08x\n", i,
            st.stage, st.b_off, st.m_off, st.b_size, img.mode);
    off_t pos = lseek(static_cast<int32_t>(st.fd), st.b_off, SEEK_SET);
    if (pos < 0) {
        LOGE_AS(kByStage, "ERR! lseek fail at stage %u\n", i);
        return static_cast<int>(pos);
    }
    int ret = send_chunks(b, i, st, img, buf.get());
    if (ret == 0) {
        LOGI_AS(kByStage, "%u stage complelte\n", i);
    }
    return ret;
}

bool secure_boot_failure(int32_t r) {
    for (int32_t code : kSecureBootFailCodes) {
        if (r == code) {
            return true;
        }
    }
    return false;
}

}  // namespace

int BootDumpQuoll::load_cp_images(cp_boot_mode mode) {
    char prop[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.rix.first_xmit_done", prop, "0");
    const char sent_before = prop[0];
    const std_boot& b = *getStdBoot();
    // Unsigned on purpose: a last_stage of 0xFFFFFFFF sends nothing. The
    // table has 13 slots whatever the TOC claims.
    for (uint32_t i = b.first_stage; i < b.last_stage + 1 && i < kStageSlots; i++) {
        const std_dload_control& st = b.stage[i];
        if (st.xmit_once != 0 && sent_before == '1') {
            LOGI("stage[%u] : stage is already xmit once\n", i);
            continue;
        }
        if (static_cast<int32_t>(st.fd) < 0) {
            LOGI("fd is not valid. skip stage[%u]\n", i);
            continue;
        }
        if (st.b_size == 0) {
            LOGI("b_size is not valid. skip stage[%u]\n", i);
            continue;
        }
        int ret = load_cp_image_by_stage(b, i, mode);
        if (ret < 0) {
            LOGI("ERR! load_cp_image_by_stage stage[%u] fail\n", i);
            return ret;
        }
    }
    property_set("vendor.rix.first_xmit_done", "1");
    return sent_before - '0';
}

int BootDumpQuoll::std_security_req(unsigned mode, unsigned param2, unsigned param3) {
    security_req_args args = {mode, param2, param3, 0};
    LOGI("cp boot mode:%d, param2:0x%x, param3:0x%x, param4:0x%x\n", static_cast<int>(args.mode),
         args.param2, args.param3, args.param4);
    int r = ioctl(getStdBoot()->fd, IOCTL_CHECK_SECURITY, &args);
    if (r == 0) {
        return 0;
    }
    LOGE("ERR! IOCTL_CHECK_SECURITY fail (0x%x)\n", static_cast<unsigned>(r));
    if (mode == SECURITY_MODE_NON_SECURE && r == 11) {
        return 0;
    }
    if (mode == SECURITY_MODE_DUMP && r == 13) {
        LOGI("dump mode and ret:%d\n", r);
        return 0;
    }
    if (secure_boot_failure(r)) {
        LOGI("fail to check secure cp boot mode(%d)\n", static_cast<int>(mode));
        if (Container::protocol->check_dmx_sales_code()) {
            Container::protocol->std_reboot_system("secure");
        }
    }
    return -1;
}
