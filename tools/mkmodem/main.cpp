// mkmodem: builds a modem partition image (TOC and parts) and NV data files
// for the test bench. See README.md.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nv.h"
#include "toc.h"

namespace {

int usage() {
    fprintf(
        stderr,
        "usage: mkmodem image OUT [--count N] [--align N] [--m-base N] NAME[:key=value,...]...\n"
        "       mkmodem nv OUT (--total-size N [--corrupt] | --erased SIZE) [--seed-name NAME]\n"
        "                      [--file-size N]\n"
        "       mkmodem show IMAGE\n");
    return 2;
}

bool number(const char* text, uint64_t& out) {
    errno = 0;
    char* end = nullptr;
    out = std::strtoull(text, &end, 0);
    return errno == 0 && *end == '\0' && text[0] != '-' && text[0] != '\0';
}

int image(int argc, char** argv) {
    mkmodem::ImageLayout req;
    for (int i = 3; i < argc; ++i) {
        std::string a = argv[i];
        uint64_t v = 0;
        if ((a == "--count" || a == "--align" || a == "--m-base") && i + 1 < argc) {
            if (!number(argv[++i], v) || v > UINT32_MAX) {
                return usage();
            }
            if (a == "--count") {
                req.toc_count = static_cast<uint32_t>(v);
            } else if (a == "--align") {
                req.align = static_cast<uint32_t>(v);
            } else {
                req.m_base = static_cast<uint32_t>(v);
            }
            continue;
        }
        mkmodem::PartLayout part;
        std::string err = mkmodem::parse_part(a, part);
        if (!err.empty()) {
            fprintf(stderr, "mkmodem: %s\n", err.c_str());
            return 2;
        }
        req.parts.push_back(part);
    }
    std::string err = mkmodem::write_image(req, argv[2]);
    if (!err.empty()) {
        fprintf(stderr, "mkmodem: %s\n", err.c_str());
        return 1;
    }
    return 0;
}

int nv(int argc, char** argv) {
    mkmodem::NvLayout req;
    bool sized = false;
    for (int i = 3; i < argc; ++i) {
        std::string a = argv[i];
        uint64_t v = 0;
        if (a == "--corrupt") {
            req.corrupt = true;
        } else if (i + 1 < argc && a == "--seed-name") {
            req.seed_name = argv[++i];
        } else if (i + 1 < argc && number(argv[i + 1], v) && v <= UINT32_MAX) {
            ++i;
            if (a == "--total-size") {
                req.total_size = static_cast<uint32_t>(v);
                sized = true;
            } else if (a == "--erased") {
                req.erased = true;
                req.erased_size = static_cast<uint32_t>(v);
                sized = true;
            } else if (a == "--file-size") {
                req.file_size = v;
            } else {
                return usage();
            }
        } else {
            return usage();
        }
    }
    if (!sized) {
        return usage();
    }
    std::string err = mkmodem::write_nv(req, argv[2]);
    if (!err.empty()) {
        fprintf(stderr, "mkmodem: %s\n", err.c_str());
        return 1;
    }
    return 0;
}

int show(const char* path) {
    mkmodem::toc_entry toc[mkmodem::kTocEntries] = {};
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, toc, sizeof(toc)) < 0) {
        perror(path);
        return 1;
    }
    close(fd);
    printf("count %u\n", toc[0].toc_count);
    for (size_t i = 0; i < mkmodem::kTocEntries; ++i) {
        if (toc[i].name[0] == '\0') {
            continue;
        }
        printf("%2zu %-12.12s b_off=0x%08X m_off=0x%08X size=0x%08X crc=0x%08X\n", i, toc[i].name,
               toc[i].b_off, toc[i].m_off, toc[i].size, toc[i].crc);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return usage();
    }
    std::string cmd = argv[1];
    if (cmd == "image") {
        return image(argc, argv);
    }
    if (cmd == "nv") {
        return nv(argc, argv);
    }
    if (cmd == "show") {
        return show(argv[2]);
    }
    return usage();
}
