// Linked into the programs that tests/mutate builds: notes which blocks of code they come through.
//
// g++ puts a call in front of each block (-fsanitize-coverage=trace-pc). Here it leaves a mark in a
// file of the folder that MUTATE_REACHED names, one byte for each address of the program's code.
// The file is shared memory, so that nothing is lost with a child that aborts. This source must not
// be compiled with that option itself.

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
extern const char __executable_start;
extern const char etext;
void __sanitizer_cov_trace_pc();
}

namespace {

char* marks = nullptr;

// Bare system calls: a test may have put functions of its own in the place of the library's.
__attribute__((constructor(101))) void share_marks() {
    const char* const folder = std::getenv("MUTATE_REACHED");
    if (folder == nullptr) return;
    char path[4096];
    std::snprintf(path, sizeof path, "%s/%s", folder, program_invocation_short_name);
    const long fd = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const std::ptrdiff_t size = &etext - &__executable_start;
    if (syscall(SYS_ftruncate, fd, size) == 0) {
        const long at = syscall(SYS_mmap, nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (at > 0) marks = reinterpret_cast<char*>(at);
    }
    syscall(SYS_close, fd);
}

} // namespace

void __sanitizer_cov_trace_pc() {
    if (marks == nullptr) return;
    // Calls of libraries loaded later come here too.
    const char* const from = static_cast<const char*>(__builtin_return_address(0));
    if (from >= &__executable_start && from < &etext) marks[from - &__executable_start] = 1;
}
