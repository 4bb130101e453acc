// A plug-in of QEMU's: prints how many instructions the emulated program ran.
//
// Debian ships QEMU without the header of its plug-ins, so what is used of it is declared here.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" {

struct qemu_plugin_tb;  // A block of translated code, left only at its end.
struct qemu_info_t;

void qemu_plugin_register_vcpu_tb_trans_cb(std::uint64_t id,
                                           void (*translated)(std::uint64_t, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(qemu_plugin_tb* block,
                                          void (*executed)(unsigned int, void*), int registers,
                                          void* data);
void qemu_plugin_register_atexit_cb(std::uint64_t id, void (*ended)(std::uint64_t, void*),
                                    void* data);
std::size_t qemu_plugin_tb_n_insns(qemu_plugin_tb const* block);

__attribute__((visibility("default"))) extern int const qemu_plugin_version = 1;

__attribute__((visibility("default"))) int qemu_plugin_install(std::uint64_t id,
                                                               qemu_info_t const* info, int argc,
                                                               char** argv);
}

namespace {

std::atomic<std::uintptr_t> count{0};

void countBlock(unsigned int, void* instructions) {
    count.fetch_add(reinterpret_cast<std::uintptr_t>(instructions), std::memory_order_relaxed);
}

void addCounter(std::uint64_t, qemu_plugin_tb* block) {
    qemu_plugin_register_vcpu_tb_exec_cb(block, countBlock, 0,
                                         reinterpret_cast<void*>(qemu_plugin_tb_n_insns(block)));
}

void print(std::uint64_t, void*) {
    std::fprintf(stderr, "instructions: %ju\n", static_cast<std::uintmax_t>(count.load()));
}

}  // namespace

int qemu_plugin_install(std::uint64_t id, qemu_info_t const*, int, char**) {
    qemu_plugin_register_vcpu_tb_trans_cb(id, addCounter);
    qemu_plugin_register_atexit_cb(id, print, nullptr);
    return 0;
}
