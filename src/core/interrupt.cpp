#include "core/interrupt.hpp"

#include <atomic>
#include <csignal>
#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace torix {

namespace {

constexpr int kSlots = 32;
constexpr std::size_t kPathBytes = 4096;
constexpr std::size_t kMessageBytes = 1024;

// A slot is published (state 2) only after its name is complete, so the
// handler never reads a half-written name.
struct TempSlot {
    std::atomic<int> state{0};  // 0 free, 1 being filled, 2 set
    char path[kPathBytes];
};
TempSlot g_temps[kSlots];

// Two message buffers: the loop fills the one not shown and then switches,
// so the handler always reads a complete message.
char g_message[2][kMessageBytes];
std::atomic<int> g_message_len[2];
std::atomic<int> g_current{-1};
bool g_terminal = false;

void put(const char* s, std::size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(2, s, n);
        if (w <= 0) return;
        s += w;
        n -= static_cast<std::size_t>(w);
    }
}

extern "C" void on_interrupt(int sig) {
    for (TempSlot& t : g_temps)
        if (t.state.load(std::memory_order_acquire) == 2) ::unlink(t.path);
    // Off an in-place progress line first.
    if (g_terminal) put("\r\x1b[K", 4);
    const int cur = g_current.load(std::memory_order_acquire);
    if (cur >= 0) {
        put(g_message[cur], static_cast<std::size_t>(g_message_len[cur].load(std::memory_order_relaxed)));
    } else {
        static const char start[] = "torix: ";
        put(start, sizeof start - 1);
    }
    const char* name = sig == SIGINT ? "interrupted by SIGINT\n" : "interrupted by SIGTERM\n";
    put(name, std::strlen(name));
    ::_exit(128 + sig);
}

}  // namespace

void install_interrupt_handlers() {
    g_terminal = ::isatty(2) == 1;
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, SIGINT);
    sigaddset(&sa.sa_mask, SIGTERM);
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

void note_running_command(std::string_view script, int line, std::string_view keyword) {
    const int next = g_current.load(std::memory_order_relaxed) == 0 ? 1 : 0;
    const std::string m = std::string(script) + ":" + std::to_string(line) + ": " + std::string(keyword) + ": ";
    const std::size_t n = std::min(m.size(), kMessageBytes);
    std::memcpy(g_message[next], m.data(), n);
    g_message_len[next].store(static_cast<int>(n), std::memory_order_relaxed);
    g_current.store(next, std::memory_order_release);
}

int register_temporary(const std::string& path) {
    if (path.size() >= kPathBytes) return -1;
    for (int i = 0; i < kSlots; ++i) {
        int expected = 0;
        if (!g_temps[i].state.compare_exchange_strong(expected, 1, std::memory_order_acquire)) continue;
        std::memcpy(g_temps[i].path, path.c_str(), path.size() + 1);
        g_temps[i].state.store(2, std::memory_order_release);
        return i;
    }
    return -1;
}

void release_temporary(int slot) {
    if (slot >= 0 && slot < kSlots) g_temps[slot].state.store(0, std::memory_order_release);
}

}  // namespace torix
