// Operations whose work is not in this build yet: each says so in one line
// and returns its failure value, so every caller takes its failure path.
#include "boot/boot_dump.h"
#include "core/util.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "srinfo/srinfo.h"

#define NOT_BUILT() LOGI("ERR! not available in this build\n")

int dump_try_cnt = 0;

int BootDumpQuoll::boot() {
    NOT_BUILT();
    return -1;
}
int BootDumpQuoll::dump() {
    NOT_BUILT();
    return -1;
}
void BootDumpQuoll::build_std_dload_control() { NOT_BUILT(); }
bool BootDumpQuoll::prepare_boot_args(cp_boot_mode) {
    NOT_BUILT();
    return false;
}
int BootDumpQuoll::load_cp_images(cp_boot_mode) {
    NOT_BUILT();
    return -1;
}
int BootDumpQuoll::std_security_req(unsigned, unsigned, unsigned) {
    NOT_BUILT();
    return -1;
}
void BootDumpQuoll::boot_wake_lock(int) { NOT_BUILT(); }

void BootDump::set_sim_configuration() { NOT_BUILT(); }
int BootDump::set_minidump_mode() {
    NOT_BUILT();
    return -1;
}
int BootDump::get_log_dump(const char*, cp_log_dump_index) {
    NOT_BUILT();
    return -1;
}
int BootDump::get_num_log_dump(cp_log_dump_index, unsigned* count) {
    NOT_BUILT();
    *count = 0;
    return 0;
}
void BootDump::build_std_dload_control_nv_fd(unsigned, unsigned) { NOT_BUILT(); }
bool BootDump::std_boot_prepare_args() {
    NOT_BUILT();
    return false;
}
bool BootDump::std_boot_parse_toc_img(cp_boot_mode, unsigned*) {
    NOT_BUILT();
    return false;
}
bool BootDump::std_dump_prepare_args() {
    NOT_BUILT();
    return false;
}
int BootDump::std_dump_receive_cp_dump() {
    NOT_BUILT();
    return -1;
}
int BootDump::std_dump_upload() {
    NOT_BUILT();
    return -1;
}
int BootDump::std_dump_write_versions() {
    NOT_BUILT();
    return -1;
}

int Protocol::std_ul_rx_frame(void*, unsigned) {
    NOT_BUILT();
    return -1;
}
int Protocol::std_udl_req_resp(operation, unsigned, unsigned) {
    NOT_BUILT();
    return -1;
}
void Protocol::make_cp_crash_reason(char*) { NOT_BUILT(); }
int ProtocolTarn::std_boot_finish_handshake() {
    NOT_BUILT();
    return -1;
}
int ProtocolTarn::std_dump_receive_cp_dump() {
    NOT_BUILT();
    return -1;
}
int ProtocolTarn::std_reboot_system(const char*) {
    NOT_BUILT();
    return -1;
}
int ProtocolTarn::std_udl_stage_start(operation, unsigned) {
    NOT_BUILT();
    return -1;
}
int ProtocolTarn::std_udl_stage_done(operation, unsigned) {
    NOT_BUILT();
    return -1;
}
bool ProtocolTarn::check_dmx_sales_code() {
    NOT_BUILT();
    return false;
}
int ProtocolTarn::get_factory_prop() {
    NOT_BUILT();
    return -1;
}
int ProtocolTarn::std_udl_poll(operation, short, long) {
    NOT_BUILT();
    return -5;
}

int Srinfo::open_srinfo_file(const char*) {
    NOT_BUILT();
    return -1;
}
void SrinfoTarn::store_srinfo(int) { NOT_BUILT(); }
void SrinfoTarn::restore_srinfo(int) { NOT_BUILT(); }
srinfo_block* SrinfoTarn::alloc_srinfo(unsigned int* len, int) {
    NOT_BUILT();
    *len = 0;
    return nullptr;
}
int SrinfoTarn::write_srinfo_file(int, char*, unsigned int) {
    NOT_BUILT();
    return -1;
}

int Log::create_log_directory() {
    NOT_BUILT();
    return -1;
}
int Log::create_directory(const char*) {
    NOT_BUILT();
    return -1;
}
int Log::check_fs_log_directory() {
    NOT_BUILT();
    return -1;
}
void Log::save_logs_thread(int, char*) { NOT_BUILT(); }
void Log::save_logs(int, char*) { NOT_BUILT(); }
void* Log::_save_logs(void*) {
    NOT_BUILT();
    return nullptr;
}

void Util::switch_group_log(char*) { NOT_BUILT(); }
void Util::byteToHex(char* dst, unsigned long dst_size, char*, unsigned long) {
    NOT_BUILT();
    if (dst_size > 0) {
        dst[0] = '\0';
    }
}
void Util::toUpperCase(char*, char*) { NOT_BUILT(); }
bool Util::getNvFd(cp_boot_mode, char*, int, int* fd) {
    NOT_BUILT();
    *fd = -1;
    return false;
}
