// Image loading at the transport's limit: one 63488-byte read from the
// partition and one IOCTL_LOAD_CP_IMAGE per chunk, nothing else.
//
//   minimal_image --boot NODE --partition FILE --b-off N --m-off N --size N
#include <sys/ioctl.h>

#include <cstdint>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "minimal.h"

int main(int argc, char** argv) {
    const int boot = minimal::open_or_die(minimal::arg(argc, argv, "--boot"), O_RDWR);
    const int part = minimal::open_or_die(minimal::arg(argc, argv, "--partition"), O_RDONLY);
    const auto b_off = static_cast<uint32_t>(minimal::num(argc, argv, "--b-off"));
    const auto size = static_cast<uint32_t>(minimal::num(argc, argv, "--size"));
    static uint8_t buf[udl::kImageChunkSize];
    cp_image img{};
    img.image_buf = reinterpret_cast<uintptr_t>(buf);
    img.size = size;
    img.m_offset = static_cast<uint32_t>(minimal::num(argc, argv, "--m-off"));
    img.b_offset = b_off;
    if (ioctl(boot, IOCTL_POWER_ON) < 0) {
        minimal::die("POWER_ON");
    }
    if (lseek(part, b_off, SEEK_SET) < 0) {
        minimal::die("lseek");
    }
    const double cpu0 = minimal::cpu_seconds();
    uint32_t sent = 0;
    while (sent < size) {
        img.len = size - sent < udl::kImageChunkSize ? size - sent : udl::kImageChunkSize;
        if (read(part, buf, img.len) != static_cast<ssize_t>(img.len)) {
            minimal::die("read partition");
        }
        if (ioctl(boot, IOCTL_LOAD_CP_IMAGE, &img) != 0) {
            minimal::die("LOAD_CP_IMAGE");
        }
        img.m_offset += img.len;
        sent += img.len;
    }
    minimal::report(sent, minimal::cpu_seconds() - cpu0);
    return 0;
}
