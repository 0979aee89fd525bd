// SPDX-License-Identifier: GPL-3.0-or-later
// Behaves like the AirConnect bridge as far as Corvel can see, steered by environment:
//   FAKE_BRIDGE_RECORD_DIR   write args.txt (one argument a line), config.xml (a copy of
//                            the -x file) and pid there at start
//   FAKE_BRIDGE_READY_MS     after this many ms, print "adding renderer" as the bridge does for
//                            each enabled speaker of the -x file (a made-up one if none),
//                            then each line of FAKE_BRIDGE_SAY (lines in the bridge's
//                            language, "@N" standing for the Nth speaker's pointer)
//   FAKE_BRIDGE_EXIT_MS      exit by itself after this many ms, with FAKE_BRIDGE_EXIT_CODE
//   FAKE_BRIDGE_CRASH_MS     abort after this many ms
//   FAKE_BRIDGE_IGNORE_TERM  1: ignore SIGTERM
//   FAKE_BRIDGE_TERM_DELAY_MS  on SIGTERM, take this long before exiting 0
//   FAKE_BRIDGE_INVALID_UTF8 1: print a line that is not UTF-8 at start
//   FAKE_BRIDGE_FLOOD_BYTES  print this many bytes of log lines at start
// Like the real bridge, with -b NAME it prints "Cannot start" and exits 1 when that interface
// has no IPv4 address.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ifaddrs.h>
#include <iterator>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
volatile std::sig_atomic_t g_terminate = 0;

long envNumber(const char *name, long fallback)
{
    const char *value = std::getenv(name);
    return value && *value ? std::strtol(value, nullptr, 10) : fallback;
}

void onTerm(int)
{
    g_terminate = 1;
}

bool hasIPv4(const char *name)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    bool found = false;
    for (const ifaddrs *entry = list; entry && !found; entry = entry->ifa_next)
        found = entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET &&
                std::strcmp(entry->ifa_name, name) == 0;
    freeifaddrs(list);
    return found;
}

void say(const std::string &line)
{
    std::fputs((line + "\n").c_str(), stderr);
    std::fflush(stderr);
}

// The names of the enabled <device> entries of the bridge's file, in order.
std::vector<std::string> offeredNames(const std::string &config)
{
    std::vector<std::string> names;
    for (size_t at = config.find("<device>"); at != std::string::npos;
         at = config.find("<device>", at + 1)) {
        const size_t end = config.find("</device>", at);
        const std::string device = config.substr(at, end - at);
        const size_t name = device.find("<name>");
        if (name == std::string::npos || device.find("<enabled>1</enabled>") == std::string::npos)
            continue;
        names.push_back(device.substr(name + 6, device.find("</name>") - name - 6));
    }
    return names;
}

// Prints what the real bridge prints once it has found the speakers: "[HH:MM:SS.mmm]
// Function:LINE [pointer]: adding renderer (name) with mac ...", then the scripted lines
// (older bridges' six-decimal stamps).
void announce(const std::vector<std::string> &names)
{
    std::vector<std::string> pointers;
    for (size_t i = 0; i < names.size(); ++i) {
        pointers.push_back("0x55d0a0" + std::to_string(10 + i * 10));
        say("[00:00:00.500] AddMRDevice:1021 [" + pointers.back() + "]: adding renderer (" +
            names[i] + ") with mac 48A6B800000" + std::to_string(i));
    }
    const char *script = std::getenv("FAKE_BRIDGE_SAY");
    std::string lines = script ? script : "";
    for (size_t start = 0; start < lines.size();) {
        size_t end = lines.find('\n', start);
        if (end == std::string::npos)
            end = lines.size();
        std::string line = lines.substr(start, end - start);
        for (size_t at; (at = line.find('@')) != std::string::npos;) {
            const size_t index = size_t(std::strtoul(line.c_str() + at + 1, nullptr, 10));
            line.replace(at, 2, index < pointers.size() ? pointers[index] : "0x0");
        }
        say("[00:00:01.000000] UpdateThread:700 " + line);
        start = end + 1;
    }
}
} // namespace

int main(int argc, char **argv)
{
    // Asked for its options, it answers as the bridge does: usage on standard output, exit 1.
    if (argc == 2 && std::strcmp(argv[1], "-h") == 0) {
        std::printf("v0.0.0 (fake)\nSee -t for license terms\nUsage: [options]\n"
                    "  -x <config file>\tread config from file (default is ./config.xml)\n");
        return 1;
    }
    std::string configText;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "-x") == 0) {
            std::ifstream config(argv[i + 1], std::ios::binary);
            configText.assign(std::istreambuf_iterator<char>(config), {});
        }
    }
    const char *recordDir = std::getenv("FAKE_BRIDGE_RECORD_DIR");
    if (recordDir && *recordDir) {
        std::ofstream args(std::string(recordDir) + "/args.txt");
        for (int i = 1; i < argc; ++i) {
            args << argv[i] << '\n';
            if (std::strcmp(argv[i], "-x") == 0 && i + 1 < argc) {
                std::ifstream config(argv[i + 1], std::ios::binary);
                std::ofstream copy(std::string(recordDir) + "/config.xml", std::ios::binary);
                copy << config.rdbuf();
            }
        }
        std::ofstream(std::string(recordDir) + "/pid") << getpid();
    }

    std::signal(SIGTERM, envNumber("FAKE_BRIDGE_IGNORE_TERM", 0) ? SIG_IGN : onTerm);
    say("[00:00:00.000000] main:            starting fake bridge");
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "-b") == 0 && !hasIPv4(argv[i + 1])) {
            say("[00:00:00.001000] main:            Cannot start");
            return 1;
        }
    }
    if (envNumber("FAKE_BRIDGE_INVALID_UTF8", 0))
        say("bad \xff\xfe bytes adding renderer");
    if (const long flood = envNumber("FAKE_BRIDGE_FLOOD_BYTES", 0); flood > 0) {
        const std::string line(99, 'x');
        for (long written = 0; written < flood; written += 100)
            std::fprintf(stdout, "%s\n", line.c_str());
        std::fflush(stdout);
    }

    const long readyMs = envNumber("FAKE_BRIDGE_READY_MS", -1);
    const long exitMs = envNumber("FAKE_BRIDGE_EXIT_MS", -1);
    const long crashMs = envNumber("FAKE_BRIDGE_CRASH_MS", -1);
    const long termDelayMs = envNumber("FAKE_BRIDGE_TERM_DELAY_MS", 0);
    const auto begin = std::chrono::steady_clock::now();
    bool announced = false;
    for (;;) {
        const long elapsed =
            static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - begin)
                                  .count());
        if (g_terminate) {
            std::this_thread::sleep_for(std::chrono::milliseconds(termDelayMs));
            say("[00:00:01.000000] main:            terminating");
            return 0;
        }
        if (!announced && readyMs >= 0 && elapsed >= readyMs) {
            std::vector<std::string> names = offeredNames(configText);
            if (names.empty())
                names = {"Living Room"};
            announce(names);
            announced = true;
        }
        if (crashMs >= 0 && elapsed >= crashMs)
            std::abort();
        if (exitMs >= 0 && elapsed >= exitMs)
            return static_cast<int>(envNumber("FAKE_BRIDGE_EXIT_CODE", 0));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}
