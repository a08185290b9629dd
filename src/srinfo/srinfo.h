// The driver's silent-reset record: saved before a boot or dump, handed back
// after the next successful boot, with a rotating hex log.
#pragma once

#include "boot/cpif.h"

class Srinfo {
  public:
    virtual ~Srinfo() = default;

    virtual void store_srinfo(int fd) = 0;
    virtual void restore_srinfo(int fd) = 0;
    virtual srinfo_block* alloc_srinfo(unsigned int* len, int fd) = 0;
    virtual int write_srinfo_file(int fd, char* data, unsigned int len) = 0;
    virtual int open_srinfo_file(const char* name);
};

class SrinfoTarn : public Srinfo {
  public:
    void store_srinfo(int fd) override;
    void restore_srinfo(int fd) override;
    srinfo_block* alloc_srinfo(unsigned int* len, int fd) override;
    int write_srinfo_file(int fd, char* data, unsigned int len) override;
};
