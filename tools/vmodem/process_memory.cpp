#include "process_memory.h"

#include <sys/uio.h>

namespace vmodem {

bool ProcessMemory::read(uint64_t addr, void* dst, size_t len) {
    iovec local{dst, len};
    iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(addr)), len};
    return process_vm_readv(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(len);
}

bool ProcessMemory::write(uint64_t addr, const void* src, size_t len) {
    iovec local{const_cast<void*>(src), len};
    iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(addr)), len};
    return process_vm_writev(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(len);
}

}  // namespace vmodem
