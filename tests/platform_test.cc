// Stand-ins of the trace and firmware-control libraries: whole lines under
// concurrency, destinations, rotation, NV atomicity and fault injection.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"

namespace {

namespace fs = std::filesystem;

struct Tmp {
    std::string dir;
    Tmp() {
        char t[] = "/tmp/platform_test.XXXXXX";
        dir = ::mkdtemp(t);
    }
    ~Tmp() { fs::remove_all(dir); }
    std::string operator/(const std::string& f) const { return dir + "/" + f; }
    long entries() const { return std::distance(fs::directory_iterator(dir), {}); }
};

std::vector<std::string> lines_of(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Timestamp, PROC[PID.TID], level, module:line, message.
const std::regex kLine(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} (\S+)\[(\d+)\.(\d+)\] L(\d) (\S+):(\d+) (.*)$)");

void set_trace_env(const std::string& file, const char* level = "5", const char* dir = nullptr) {
    ::setenv("MC_TRACE_FILE", file.c_str(), 1);
    level ? ::setenv("MC_TRACE_LEVEL", level, 1) : ::unsetenv("MC_TRACE_LEVEL");
    dir ? ::setenv("MC_TRACE_DIR", dir, 1) : ::unsetenv("MC_TRACE_DIR");
    MC_TestReloadEnv();
}

// Runs fn(1..procs) in forked children (forked first, while this process
// has one thread) and fn(-1..-threads) in threads, all at once.
bool run_everywhere(int procs, int threads, const std::function<int(int)>& fn) {
    std::vector<pid_t> kids;
    for (int i = 1; i <= procs; ++i) {
        pid_t p = ::fork();
        if (p == 0) ::_exit(fn(i));
        kids.push_back(p);
    }
    std::atomic<bool> ok{true};
    std::vector<std::thread> th;
    for (int i = 1; i <= threads; ++i) th.emplace_back([&, i] { if (fn(-i) != 0) ok = false; });
    for (auto& x : th) x.join();
    for (pid_t p : kids) {
        int st = 0;
        if (::waitpid(p, &st, 0) != p || !WIFEXITED(st) || WEXITSTATUS(st) != 0) ok = false;
    }
    return ok;
}

// n lines "w=<who> n=<i> <pad>", the pad a run of one letter per writer.
int trace_lines(int who, int n) {
    std::string pad(150, static_cast<char>('a' + (who + 26) % 26));
    for (int i = 0; i < n; ++i) MC_OutTrace("../common/sbacc", 100 + who, 3, "w=%d n=%d %s", who, i, pad.c_str());
    return 0;
}

// Every line well formed, every writer's lines complete and in order.
void expect_whole_lines(const std::vector<std::string>& lines, size_t writers, int per_writer) {
    std::map<int, int> next;
    for (const std::string& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, kLine)) << l;
        int who = 0, n = -1;
        char pad[200] = {};
        ASSERT_EQ(3, std::sscanf(m[7].str().c_str(), "w=%d n=%d %199s", &who, &n, pad)) << l;
        EXPECT_EQ(std::string(150, static_cast<char>('a' + (who + 26) % 26)), pad) << l;
        EXPECT_EQ(next[who]++, n) << l;
        EXPECT_EQ("3 " + std::to_string(100 + who), m[4].str() + " " + m[6].str()) << l;
    }
    ASSERT_EQ(writers, next.size());
    for (auto& [who, count] : next) EXPECT_EQ(per_writer, count) << "writer " << who;
}

TEST(McLogapi, ThreadsAndProcessesWriteWholeLines) {
    Tmp t;
    set_trace_env(t / "all.log");  // opened here, shared by the children
    ASSERT_TRUE(run_everywhere(3, 8, [](int w) { return trace_lines(w, 500); }));
    expect_whole_lines(lines_of(t / "all.log"), 11, 500);
}

TEST(McLogapi, PerThreadDestinations) {
    Tmp t;
    fs::create_directory(t / "env");
    const std::string env = t / "env", env_slash = env + "/", def = t / "default.log";
    struct Case { const char* env_dir; std::string set_dir, expect; } cases[] = {
        {nullptr, t.dir + "/", t / "a.log"},
        {nullptr, t.dir, t / "a.log"},
        {env.c_str(), "/opt/env_frmwk/log/", t / "env/a.log"},  // MC_TRACE_DIR replaces the directory
        {env_slash.c_str(), "/nonexistent", t / "env/a.log"},
        {nullptr, t / "missing", def},  // open fails: process default
    };
    for (const Case& c : cases) {
        fs::remove(c.expect);
        fs::remove(def);
        set_trace_env(def, "5", c.env_dir);
        std::thread([&] {
            MC_SetLogProcName("env_restore1");
            MC_SetTraceName(c.set_dir.c_str(), "a.log");
            for (int i = 0; i < 3; ++i) MC_OutTrace("m", i, 1, "thread %s", "line");
        }).join();
        MC_OutTrace("../common/sbacc_l", 77, 2, "main %d%%", 5);
        auto got = lines_of(c.expect), in_def = lines_of(def);
        ASSERT_EQ(c.expect == def ? 4u : 3u, got.size()) << c.expect;
        std::smatch m;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(std::regex_match(got[i], m, kLine)) << got[i];
            EXPECT_EQ("env_restore1 1 m:" + std::to_string(i) + " thread line",
                      m[1].str() + " " + m[4].str() + " " + m[5].str() + ":" + m[6].str() + " " + m[7].str());
            EXPECT_NE(std::to_string(::getpid()), m[3].str());  // a worker's own TID
        }
        ASSERT_FALSE(in_def.empty());
        ASSERT_TRUE(std::regex_match(in_def.back(), m, kLine)) << in_def.back();
        EXPECT_EQ(std::string(program_invocation_short_name) + " " + std::to_string(::getpid()) + " " +
                      std::to_string(::syscall(SYS_gettid)) + " 2 ../common/sbacc_l:77 main 5%",
                  m[1].str() + " " + m[2].str() + " " + m[3].str() + " " + m[4].str() + " " + m[5].str() + ":" +
                      m[6].str() + " " + m[7].str());
    }
}

TEST(McLogapi, ThreadFileKeepsNoDescriptorAndRemembersFailure) {
    Tmp t;
    set_trace_env(t / "d.log");
    auto fds = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    long before = fds();
    MC_SetTraceName(t.dir.c_str(), "own.log");
    for (int i = 0; i < 50; ++i) MC_OutTrace("m", i, 1, "line %d", i);
    MC_SetTraceName((t / "missing").c_str(), "own.log");
    errno = 1234;
    MC_OutTrace("m", 1, 1, "fails over to the default");
    EXPECT_EQ(1234, errno);
    fs::create_directory(t / "missing");  // not retried until the thread names its file again
    MC_OutTrace("m", 2, 1, "still the default");
    EXPECT_EQ(before, fds());
    MC_SetTraceName((t / "missing").c_str(), "own.log");
    MC_OutTrace("m", 3, 1, "now the own file");
    EXPECT_EQ(50u, lines_of(t / "own.log").size());
    EXPECT_EQ(2u, lines_of(t / "d.log").size());
    EXPECT_EQ(1u, lines_of(t / "missing/own.log").size());
}

struct Captured {
    std::mutex mu;
    std::vector<std::string> got;  // "level module:line message"
    static void fn(void* ctx, int level, const char* module, int line, const char* msg) {
        auto* c = static_cast<Captured*>(ctx);
        std::lock_guard<std::mutex> lk(c->mu);
        c->got.push_back(std::to_string(level) + " " + module + ":" + std::to_string(line) + " " + msg);
    }
};

TEST(McLogapi, LevelFilterAndCapture) {
    struct Case { const char* env; size_t max; } cases[] = {
        {"5", 5}, {"3", 3}, {"1", 1}, {"0", 5}, {"6", 5}, {"2x", 5}, {"", 5}, {nullptr, 5}};
    for (const Case& c : cases) {
        Tmp t;
        set_trace_env(t / "l.log", c.env);
        Captured cap;
        MC_TestSetCapture(&Captured::fn, &cap);
        for (int lv = 1; lv <= 5; ++lv) MC_OutTrace("mod", 10 + lv, lv, "level %d", lv);
        MC_TestSetCapture(nullptr, nullptr);
        MC_OutTrace("mod", 1, 1, "after removal");
        ASSERT_EQ(c.max, cap.got.size()) << (c.env ? c.env : "unset");
        for (size_t lv = 1; lv <= c.max; ++lv)
            EXPECT_EQ(std::to_string(lv) + " mod:" + std::to_string(10 + lv) + " level " + std::to_string(lv), cap.got[lv - 1]);
        EXPECT_EQ(c.max + 1, lines_of(t / "l.log").size());
    }
}

TEST(McLogapi, CaptureWithoutFileAndLongMessages) {
    Tmp t;
    set_trace_env("", nullptr);  // no process default
    Captured cap;
    MC_TestSetCapture(&Captured::fn, &cap);
    const std::string big(100000, 'z');
    ASSERT_TRUE(run_everywhere(0, 4, [&](int i) {
        if (i == -1) MC_SetTraceName(t.dir.c_str(), "big.log");
        for (int n = 0; n < 50; ++n) MC_OutTrace("m", n, 4, "%d:%s", i, n == 0 ? big.c_str() : "");
        return 0;
    }));
    MC_TestSetCapture(nullptr, nullptr);
    ASSERT_EQ(200u, cap.got.size());
    EXPECT_EQ(4, std::count_if(cap.got.begin(), cap.got.end(), [&](auto& g) { return g.find(big) != g.npos; }));
    auto l = lines_of(t / "big.log");
    ASSERT_EQ(50u, l.size());
    EXPECT_EQ("-1:" + big, l[0].substr(l[0].size() - big.size() - 3));
}

// With room for every rotated file nothing may be lost, and every rotated
// file must have been past the limit: a file rotated twice would be small or
// leave a gap.
TEST(McLogapi, ConcurrentRotationLosesNothing) {
    Tmp t;
    set_trace_env(t / "unused.log");
    ASSERT_TRUE(run_everywhere(2, 4, [&](int w) {
        MC_SetTraceName(t.dir.c_str(), "r.log");
        MC_SetTraceSizeNum(2, 200);
        return trace_lines(w, 150);
    }));
    long rotated = t.entries() - 1 - fs::exists(t / "r.log");  // the last line may have rotated it away
    ASSERT_GT(rotated, 20);
    std::vector<std::string> all;
    for (long i = rotated; i >= 0; --i) {  // oldest first
        std::string f = i ? t / ("r.log." + std::to_string(i)) : t / "r.log";
        struct stat st;
        if (::stat(f.c_str(), &st) != 0) {
            EXPECT_EQ(0, i) << "gap at " << f;
            continue;
        }
        EXPECT_TRUE(i == 0 || st.st_size > 2 * 1024) << f << " " << st.st_size;
        for (auto& l : lines_of(f)) all.push_back(l);
    }
    expect_whole_lines(all, 6, 150);
    EXPECT_TRUE(lines_of(t / "unused.log").empty());
}

TEST(McLogapi, RotationKeepsNumFiles) {
    Tmp t;
    MC_SetTraceName(t.dir.c_str(), "r.log");
    MC_SetTraceSizeNum(1, 3);
    trace_lines(0, 100);
    EXPECT_TRUE(fs::exists(t / "r.log.2"));
    EXPECT_EQ(2 + fs::exists(t / "r.log"), t.entries());
    std::vector<std::string> kept;
    for (const char* f : {"r.log.2", "r.log.1", "r.log"})
        for (auto& l : lines_of(t / f)) kept.push_back(l);
    ASSERT_GE(kept.size(), 8u);
    for (size_t i = 0; i < kept.size(); ++i)  // the newest lines, in order
        EXPECT_NE(std::string::npos, kept[i].find(" n=" + std::to_string(100 - kept.size() + i) + " ")) << kept[i];
}

TEST(McLogapi, FilePathDel) {
    char a[] = "../common/sbacc_l", b[] = "plain", c[] = "dir/";
    EXPECT_EQ(a + 10, MC_FilePathDel(a));
    EXPECT_EQ(b, MC_FilePathDel(b));
    EXPECT_EQ(c + 4, MC_FilePathDel(c));
    EXPECT_STREQ("???", MC_FilePathDel(nullptr));
}

// ---- Firmware control ------------------------------------------------------------

struct Nv {
    Tmp t;
    explicit Nv(const char* size = nullptr) {
        ::setenv("SANFWCTL_NV_IMAGE", (t / "nv.img").c_str(), 1);
        size ? ::setenv("SANFWCTL_NV_SIZE", size, 1) : ::unsetenv("SANFWCTL_NV_SIZE");
        for (const char* v : {"SANFWCTL_FAIL_READ", "SANFWCTL_FAIL_WRITE", "SANFWCTL_FAIL_STATUS"}) ::unsetenv(v);
        sanfwctl_reset();
    }
    static int io(bool write, void* buf, uint64_t off, uint64_t len, uint32_t region = 2, int count = 1) {
        cpfw_ioctl_nv_access req{reinterpret_cast<uintptr_t>(buf), off, len};
        return write ? Ezosanfwctl_write_nv(-1, &region, &req, count) : Ezosanfwctl_read_nv(-1, &region, &req, count);
    }
};

// Records straddle a page boundary, so an unlocked reader sees a mix.  Two
// threads per process: threads share the descriptor and its flock.
class SanfwctlAtomic : public ::testing::TestWithParam<uint64_t> {};
constexpr uint64_t kRecOff = 4096 - 64;  // straddles the first page boundary

TEST_P(SanfwctlAtomic, ReadModifyWriteAcrossProcessesAndThreads) {
    Nv nv;
    const uint64_t len = GetParam();
    std::vector<unsigned char> first(len);
    ASSERT_EQ(0, Nv::io(false, first.data(), kRecOff, len));  // the children inherit this descriptor
    auto rmw = [len](int id) {
        std::vector<unsigned char> buf(len);
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
        for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
            if (Nv::io(false, buf.data(), kRecOff, len) != 0) return 1;
            for (unsigned char b : buf) if (b != buf[0]) return 2;  // a torn record
            std::memset(buf.data(), static_cast<unsigned>(id * 7 + i + ::getpid()) % 250 + 1, len);
            if (Nv::io(true, buf.data(), kRecOff, len) != 0) return 3;
        }
        return 0;
    };
    EXPECT_TRUE(run_everywhere(3, 2, [&](int id) { return id < 0 ? rmw(id) : run_everywhere(0, 2, rmw) ? 0 : 1; }));
}

INSTANTIATE_TEST_SUITE_P(RecordSizes, SanfwctlAtomic, ::testing::Values(128, 64 * 1024));

TEST(Sanfwctl, RejectedRequestsTransferNothing) {
    Nv nv("4096");
    char probe = 0;
    ASSERT_EQ(0, Nv::io(false, &probe, 4095, 1));
    EXPECT_EQ(4096u, fs::file_size(nv.t / "nv.img"));
    struct Case { uint64_t off, len; uint32_t region; int count; } cases[] = {
        {4096, 1, 2, 1}, {4000, 97, 2, 1}, {1, ~0ull, 2, 1}, {~0ull - 2, 8, 2, 1},
        {0, 8, 1, 1}, {0, 8, 3, 1}, {0, 8, 2, 0}, {0, 8, 2, 2}};
    for (const Case& c : cases) {
        for (bool write : {true, false}) {
            char buf[8];
            std::memset(buf, 0x5a, sizeof buf);
            EXPECT_NE(0, Nv::io(write, buf, c.off, c.len, c.region, c.count)) << c.off << "+" << c.len;
            EXPECT_EQ(std::string(8, 0x5a), std::string(buf, 8));
        }
    }
    cpfw_nv_region_t r = 2;
    cpfw_ioctl_nv_access req{0, 0, 0};
    EXPECT_NE(0, Ezosanfwctl_read_nv(-1, nullptr, &req, 1));
    EXPECT_NE(0, Ezosanfwctl_write_nv(-1, &r, nullptr, 1));
    std::vector<char> all(4096, 1);
    ASSERT_EQ(0, Nv::io(false, all.data(), 0, all.size()));
    EXPECT_EQ(std::vector<char>(4096, 0), all);
}

TEST(Sanfwctl, FaultInjection) {
    struct Case { const char* var; const char* value; int kind; long s, n; std::vector<int> fail; } cases[] = {
        {"SANFWCTL_FAIL_READ", "2:3", SANFWCTL_FAULT_READ, 0, 0, {3, 4, 5}},
        {"SANFWCTL_FAIL_WRITE", "0:1", SANFWCTL_FAULT_WRITE, 0, 0, {1}},
        {"SANFWCTL_FAIL_STATUS", "5:-1", SANFWCTL_FAULT_STATUS, 0, 0, {6, 7, 8}},
        {nullptr, nullptr, SANFWCTL_FAULT_WRITE, 1, 2, {2, 3}},
        {nullptr, nullptr, SANFWCTL_FAULT_READ, 6, -1, {7, 8}},
        {nullptr, nullptr, SANFWCTL_FAULT_STATUS, 0, 0, {}}};
    for (const Case& c : cases) {
        Nv nv;
        if (c.var) ::setenv(c.var, c.value, 1);
        sanfwctl_reset();
        if (!c.var) sanfwctl_set_fault(c.kind, c.s, c.n);
        const bool wr = c.kind == SANFWCTL_FAULT_WRITE;
        char last = 0;  // the value of the last write that succeeded
        for (int call = 1; call <= 8; ++call) {
            char val = static_cast<char>(call), got = 0;
            sanfw_getstatus_out_t st;
            int rc = c.kind == SANFWCTL_FAULT_STATUS ? Ezosanfwctl_get_status(0, &st) : Nv::io(wr, wr ? &val : &got, 10, 1);
            bool should_fail = std::count(c.fail.begin(), c.fail.end(), call) != 0;
            EXPECT_EQ(should_fail, rc != 0) << (c.var ? c.var : "set_fault") << " call " << call;
            if (wr) {
                ASSERT_EQ(0, Nv::io(false, &got, 10, 1));
                last = should_fail ? last : val;
                EXPECT_EQ(last, got) << "call " << call;  // a failed write changes nothing
            }
        }
        EXPECT_EQ(8, sanfwctl_call_count(c.kind));
        if (c.var) ::unsetenv(c.var);
    }
}

TEST(Sanfwctl, StatusReportsMasterFromEnvironment) {
    Nv nv;
    for (const char* m : {"1", "0", "3", static_cast<const char*>(nullptr)}) {
        m ? ::setenv("SANFWCTL_MASTER", m, 1) : ::unsetenv("SANFWCTL_MASTER");
        sanfw_getstatus_out_t st;
        std::memset(&st, 0xff, sizeof st);
        ASSERT_EQ(0, Ezosanfwctl_get_status(0, &st));
        EXPECT_EQ(m ? std::atoi(m) : 0, st.master_cont);
        EXPECT_EQ(0, st.mode | st.cont_model | st.num_cont | st.rfu[0] | st.rfu[35]);
    }
}

}  // namespace
