// The driver's silent-reset record: saved before a boot or dump, handed back
// after the next successful boot, with a rotating hex log.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

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

// Room in the block's data, and where the crash-info text starts in it.
inline constexpr size_t kSrinfoDataLen = sizeof(srinfo_block::data);
inline constexpr size_t kSrinfoTextOffset = 16;
// The hex log is moved to its backup when it is found larger than this.
inline constexpr off_t kSrinfoLogLimit = 0x10000;
inline constexpr size_t kSrinfoPathLen = 64;
// One hex row: "oooo:" + four words + a blank + 16 characters + line feed.
inline constexpr size_t kSrinfoRowLen = 5 + 4 * 9 + 16 + 1;
inline constexpr const char kSrinfoErrDir[] = "/data/vendor/log/rix/err";
// The last file "<err dir>/last_sr_info_<prefix>", the hex log
// "<log dir>/sr_info_<prefix>" and its one backup "<log dir>/.sr_info_<prefix>.bak".
inline constexpr char kSrinfoPathFormat[] = "%s/%s_%s";
inline constexpr char kSrinfoBackupPathFormat[] = "%s/.%s_%s.bak";
inline constexpr char kSrinfoLastName[] = "last_sr_info";
inline constexpr char kSrinfoLogName[] = "sr_info";
// The line that begins each hex-log entry: the local time of the store.
inline constexpr char kSrinfoTimeLine[] = "[%Y-%m-%d %H:%M:%S]\n";

// The steps of a store and a restore, each on a block already in memory, so
// that they can be driven without the driver.

// Bounds the driver's len to the room in data, copies it to *len and checks
// the marker word. False (logged) when the block is not a crash-info block.
bool srinfo_check_block(srinfo_block* block, unsigned int* len);

// Bytes of crash-info text: from data offset 16 through the first '}', or to
// the end of the valid bytes when there is none; 0 when no text is valid.
size_t srinfo_text_len(const srinfo_block* block);

// Formats the row at data offset off into out (kSrinfoRowLen bytes, no
// terminator). Bytes at or past len, which must not exceed the room in
// data, show as zero.
size_t srinfo_hex_row(char* out, const uint8_t* data, size_t len, size_t off);

// The longest hex-log entry: a time line of any year, the rows of a full
// block and the empty line.
inline constexpr size_t kSrinfoStampMax = 64;
inline constexpr size_t kSrinfoEntryMax =
    kSrinfoStampMax + (kSrinfoDataLen + 15) / 16 * kSrinfoRowLen + 1;

// Formats the hex-log entry of the first len bytes of data (at most the room
// in data) at the local time tm into out (kSrinfoEntryMax bytes, no
// terminator); returns its length.
size_t srinfo_hex_entry(char* out, const struct tm& tm, const uint8_t* data, size_t len);

// Builds the last file's path into path (kSrinfoPathLen bytes) and tells
// whether a block already waits there to be handed back.
bool check_srinfo_last(char* path);

// Creates the last file and positions it at its start: a descriptor, or the
// negative result of the failing call (logged).
int create_srinfo_last(char* path);

// Writes the crash-info text to the last file and flushes it; the write's
// result.
ssize_t write_srinfo_last(int fd, const srinfo_block* block);

// Opens an existing last file at its start: a descriptor or a negative result.
int open_srinfo_last(char* path);

// Reads the last file into a new block whose data holds the text and whose
// len counts it; null (logged) when there is nothing to hand back.
srinfo_block* read_srinfo_last(int fd);
