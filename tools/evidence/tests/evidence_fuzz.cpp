// The evidence reader over an arbitrary log directory: file names, dump logs,
// info files, kernel-log captures and silent-reset hex logs as a phone might
// leave them, cut or damaged. Input: messages (see fuzz::split_messages) in
// pairs, a file name and its content; a name that begins with byte 1 goes
// into err/.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "evidence.h"
#include "fuzz_support.h"

namespace {

constexpr char kDir[] = "/data/fuzz/evidence";
constexpr char kErr[] = "/data/fuzz/evidence/err";
constexpr size_t kNameMax = 120;

// Any bytes as the path of one file in the directory or in err/.
std::string file_path(const fuzz::Message& m) {
    std::string name(reinterpret_cast<const char*>(m.data), m.size < kNameMax ? m.size : kNameMax);
    const bool err = !name.empty() && name[0] == '\x01';
    name.erase(0, err ? 1 : 0);
    for (char& c : name) {
        c = c == '/' || c == '\0' ? '_' : c;
    }
    if (name.empty() || name == "." || name == ".." || name == "err") {
        name += "_";
    }
    return std::string(err ? kErr : kDir) + "/" + name;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    mkdir(kDir, 0755);
    mkdir(kErr, 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::FdLeakCheck fds;
    fuzz::clear_dir(kDir);
    fuzz::clear_dir(kErr);
    const auto msgs = fuzz::split_messages(data, size);
    for (size_t i = 0; i + 1 < msgs.size(); i += 2) {
        fuzz::write_file(file_path(msgs[i]).c_str(), msgs[i + 1].data, msgs[i + 1].size);
    }
    const evidence::Report r = evidence::read_report(kDir);
    // Every text of the report must be printable: dump() throws on bytes
    // that are not UTF-8, and the fuzzer reports the uncaught exception.
    const std::string json = evidence::to_json(r).dump();
    const std::string text = evidence::to_text(r);
    if (!r.readable || json.empty() || text.empty()) {
        abort();
    }
    return 0;
}
