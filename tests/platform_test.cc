// Stand-ins of the trace and firmware-control libraries: whole lines under
// concurrency, destinations, rotation, NV atomicity and fault injection.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"

namespace {

struct Tmp {
    std::string dir;
    Tmp() {
        char t[] = "/tmp/platform_test.XXXXXX";
        dir = ::mkdtemp(t);
    }
    ~Tmp() { std::filesystem::remove_all(dir); }
    std::string operator/(const std::string& f) const { return dir + "/" + f; }
};

std::vector<std::string> lines_of(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Timestamp, PROC[PID.TID], level, module:line, message.
const std::regex kLine(
    R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} (\S+)\[(\d+)\.(\d+)\] L(\d) (\S+):(\d+) (.*)$)");

void use_default_file(const std::string& file, const char* level = "5") {
    ::setenv("MC_TRACE_FILE", file.c_str(), 1);
    ::setenv("MC_TRACE_LEVEL", level, 1);
    ::unsetenv("MC_TRACE_DIR");
    MC_TestReloadEnv();
}

// Runs fn in n forked children; true when every child exited 0.
bool in_children(int n, const std::function<int(int)>& fn) {
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        pid_t p = ::fork();
        if (p == 0) ::_exit(fn(i));
        pids.push_back(p);
    }
    bool ok = true;
    for (pid_t p : pids) {
        int st = 0;
        ok = ::waitpid(p, &st, 0) == p && WIFEXITED(st) && WEXITSTATUS(st) == 0 && ok;
    }
    return ok;
}

// Writes n lines "w=<who> n=<i> <pad>", the pad a run of one letter.
void trace_lines(int who, int n) {
    std::string pad(150, static_cast<char>('a' + who % 26));
    for (int i = 0; i < n; ++i) MC_OutTrace("../common/sbacc", 100 + who, 3, "w=%d n=%d %s", who, i, pad.c_str());
}

// Every line well formed, every writer's lines complete and in order.
void expect_whole_lines(const std::vector<std::string>& lines, int writers, int per_writer) {
    std::map<int, int> next;
    for (const std::string& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, kLine)) << l;
        int who = -1, n = -1;
        char pad[200] = {};
        ASSERT_EQ(3, std::sscanf(m[7].str().c_str(), "w=%d n=%d %199s", &who, &n, pad)) << l;
        EXPECT_EQ(std::string(150, static_cast<char>('a' + who % 26)), pad) << l;
        EXPECT_EQ(next[who]++, n) << l;
        EXPECT_EQ("L3", "L" + m[4].str());
        EXPECT_EQ(std::to_string(100 + who), m[6].str());
    }
    ASSERT_EQ(static_cast<size_t>(writers), next.size());
    for (auto& [who, count] : next) EXPECT_EQ(per_writer, count) << "writer " << who;
}

TEST(McLogapi, ThreadsWriteWholeLines) {
    Tmp t;
    use_default_file(t / "all.log");
    std::vector<std::thread> th;
    for (int w = 0; w < 8; ++w) th.emplace_back(trace_lines, w, 500);
    for (auto& x : th) x.join();
    expect_whole_lines(lines_of(t / "all.log"), 8, 500);
}

TEST(McLogapi, ProcessesWriteWholeLines) {
    Tmp t;
    use_default_file(t / "all.log");  // opened here, shared by the children
    ASSERT_TRUE(in_children(3, [](int i) { trace_lines(i, 400); return 0; }));
    expect_whole_lines(lines_of(t / "all.log"), 3, 400);
}

TEST(McLogapi, FormatProcNameAndErrno) {
    Tmp t;
    use_default_file(t / "f.log");
    errno = 1234;
    MC_OutTrace("../common/sbacc_l", 77, 2, "x=%d s=%s %%", 5, "str");
    EXPECT_EQ(1234, errno);
    std::thread([] { MC_SetLogProcName("env_restore1"); MC_OutTrace("mod", 8, 1, "worker"); }).join();
    MC_OutTrace("mod", 9, 1, "main again");
    auto l = lines_of(t / "f.log");
    ASSERT_EQ(3u, l.size());
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l[0], m, kLine)) << l[0];
    EXPECT_EQ(program_invocation_short_name, m[1].str());
    EXPECT_EQ(std::to_string(::getpid()), m[2].str());
    EXPECT_EQ(std::to_string(::syscall(SYS_gettid)), m[3].str());
    EXPECT_EQ("../common/sbacc_l:77 x=5 s=str %", m[5].str() + ":" + m[6].str() + " " + m[7].str());
    ASSERT_TRUE(std::regex_match(l[1], m, kLine));
    EXPECT_EQ("env_restore1", m[1].str());
    EXPECT_NE(std::to_string(::getpid()), m[3].str());
    ASSERT_TRUE(std::regex_match(l[2], m, kLine));
    EXPECT_EQ(program_invocation_short_name, m[1].str());  // the worker's name stayed its own
}

TEST(McLogapi, PerThreadDestinations) {
    Tmp t;
    std::filesystem::create_directory(t / "env");
    struct Case {
        const char* env_dir;  // MC_TRACE_DIR, nullptr = unset
        std::string set_dir;
        std::string expect;  // file the thread's line lands in
    } cases[] = {
        {nullptr, t.dir + "/", t / "a.log"},
        {nullptr, t.dir, t / "a.log"},
        {"ENV", "/opt/env_frmwk/log/", t / "env/a.log"},
        {"ENV/", "/nonexistent", t / "env/a.log"},
        {nullptr, t / "missing", t / "default.log"},  // open fails: process default
    };
    for (const Case& c : cases) {
        std::filesystem::remove(c.expect);
        if (c.env_dir) ::setenv("MC_TRACE_DIR", std::regex_replace(c.env_dir, std::regex("ENV"), t / "env").c_str(), 1);
        else ::unsetenv("MC_TRACE_DIR");
        ::setenv("MC_TRACE_FILE", (t / "default.log").c_str(), 1);
        MC_TestReloadEnv();
        std::thread([&] {
            MC_SetTraceName(c.set_dir.c_str(), "a.log");
            for (int i = 0; i < 3; ++i) MC_OutTrace("m", i, 1, "thread line");
        }).join();
        MC_OutTrace("m", 0, 1, "main line");
        auto got = lines_of(c.expect);
        ASSERT_GE(got.size(), 3u) << c.expect;
        for (int i = 0; i < 3; ++i) EXPECT_NE(std::string::npos, got[i].find("thread line")) << c.expect;
        auto def = lines_of(t / "default.log");
        ASSERT_FALSE(def.empty());
        EXPECT_NE(std::string::npos, def.back().find("main line"));
        if (c.expect != t / "default.log") {
            for (auto& l : def) EXPECT_EQ(std::string::npos, l.find("thread line")) << c.expect;
        }
    }
}

TEST(McLogapi, ThreadFileKeepsNoDescriptorAndRemembersFailure) {
    Tmp t;
    use_default_file(t / "d.log");
    auto fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    int before = fds();
    MC_SetTraceName(t.dir.c_str(), "own.log");
    for (int i = 0; i < 50; ++i) MC_OutTrace("m", i, 1, "line %d", i);
    MC_SetTraceName((t / "missing").c_str(), "own.log");
    errno = 1234;
    MC_OutTrace("m", 1, 1, "fails over to the default");
    EXPECT_EQ(1234, errno);
    // A failed open is not retried until the thread names its file again.
    std::filesystem::create_directory(t / "missing");
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
    std::vector<std::tuple<int, std::string, int, std::string>> got;
    static void fn(void* ctx, int level, const char* module, int line, const char* msg) {
        auto* c = static_cast<Captured*>(ctx);
        std::lock_guard<std::mutex> lk(c->mu);
        c->got.emplace_back(level, module, line, msg);
    }
};

TEST(McLogapi, LevelFilterAndCapture) {
    struct Case { const char* env; int max; } cases[] = {
        {"5", 5}, {"3", 3}, {"1", 1}, {"0", 5}, {"6", 5}, {"2x", 5}, {"", 5}, {nullptr, 5}};
    for (const Case& c : cases) {
        Tmp t;
        use_default_file(t / "l.log");
        if (c.env) ::setenv("MC_TRACE_LEVEL", c.env, 1); else ::unsetenv("MC_TRACE_LEVEL");
        MC_TestReloadEnv();
        Captured cap;
        MC_TestSetCapture(&Captured::fn, &cap);
        for (int lv = 1; lv <= 5; ++lv) MC_OutTrace("mod", 10 + lv, lv, "level %d", lv);
        MC_TestSetCapture(nullptr, nullptr);
        MC_OutTrace("mod", 1, 1, "after removal");
        ASSERT_EQ(static_cast<size_t>(c.max), cap.got.size()) << (c.env ? c.env : "unset");
        for (int lv = 1; lv <= c.max; ++lv)
            EXPECT_EQ(std::make_tuple(lv, std::string("mod"), 10 + lv, "level " + std::to_string(lv)), cap.got[lv - 1]);
        EXPECT_EQ(static_cast<size_t>(c.max) + 1, lines_of(t / "l.log").size());
    }
}

TEST(McLogapi, CaptureWithoutFileAndLongMessages) {
    Tmp t;
    ::unsetenv("MC_TRACE_FILE");
    ::unsetenv("MC_TRACE_LEVEL");
    MC_TestReloadEnv();
    Captured cap;
    MC_TestSetCapture(&Captured::fn, &cap);
    std::string big(100000, 'z');
    std::vector<std::thread> th;
    for (int i = 0; i < 4; ++i) th.emplace_back([&, i] {
        if (i == 0) MC_SetTraceName(t.dir.c_str(), "big.log");
        for (int n = 0; n < 50; ++n) MC_OutTrace("m", n, 4, "%d:%s", i, n == 0 ? big.c_str() : "");
    });
    for (auto& x : th) x.join();
    MC_TestSetCapture(nullptr, nullptr);
    EXPECT_EQ(200u, cap.got.size());
    size_t bigs = 0;
    for (auto& g : cap.got) bigs += std::get<3>(g).size() == big.size() + 2;
    EXPECT_EQ(4u, bigs);
    auto l = lines_of(t / "big.log");
    ASSERT_EQ(50u, l.size());
    EXPECT_EQ("0:" + big, l[0].substr(l[0].size() - big.size() - 2));
}

// Threads and processes rotate one file at once; with room for every
// rotated file nothing may be lost, and every rotated file must have been past
// the limit (a file rotated twice would be small, or leave a gap).
TEST(McLogapi, ConcurrentRotationLosesNothing) {
    Tmp t;
    use_default_file(t / "unused.log");
    auto writer = [&](int w) {
        MC_SetTraceName(t.dir.c_str(), "r.log");
        MC_SetTraceSizeNum(2, 200);
        trace_lines(w, 150);
        return 0;
    };
    std::vector<pid_t> kids;
    for (int i = 0; i < 2; ++i) {
        pid_t p = ::fork();
        if (p == 0) ::_exit(writer(10 + i));
        kids.push_back(p);
    }
    std::vector<std::thread> th;
    for (int w = 0; w < 4; ++w) th.emplace_back(writer, w);
    for (auto& x : th) x.join();
    for (pid_t p : kids) ASSERT_EQ(p, ::waitpid(p, nullptr, 0));
    int rotated = static_cast<int>(std::distance(std::filesystem::directory_iterator(t.dir), {})) - 1 -
                  std::filesystem::exists(t / "r.log");  // the last line may have rotated it away
    ASSERT_GT(rotated, 20);
    std::vector<std::string> all;
    for (int i = rotated; i >= 0; --i) {  // oldest first
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
    std::vector<std::string> kept;
    for (const char* f : {"r.log.2", "r.log.1", "r.log"})
        for (auto& l : lines_of(t / f)) kept.push_back(l);
    // The live file may have been rotated away by the last line.
    EXPECT_TRUE(std::filesystem::exists(t / "r.log.2"));
    EXPECT_FALSE(std::filesystem::exists(t / "r.log.3"));
    EXPECT_EQ(2 + std::filesystem::exists(t / "r.log"), std::distance(std::filesystem::directory_iterator(t.dir), {}));
    ASSERT_GE(kept.size(), 8u);
    for (size_t i = 0; i < kept.size(); ++i)  // the newest lines, in order
        EXPECT_NE(std::string::npos, kept[i].find(" n=" + std::to_string(100 - kept.size() + i) + " ")) << kept[i];
}

TEST(McLogapi, FilePathDel) {
    char a[] = "../common/sbacc_l", b[] = "plain", c[] = "dir/";
    EXPECT_STREQ("sbacc_l", MC_FilePathDel(a));
    EXPECT_EQ(a + 10, MC_FilePathDel(a));
    EXPECT_EQ(b, MC_FilePathDel(b));
    EXPECT_STREQ("", MC_FilePathDel(c));
    EXPECT_STREQ("???", MC_FilePathDel(nullptr));
}

// ---- Firmware control ------------------------------------------------------------

struct Nv {
    Tmp t;
    explicit Nv(const char* size = nullptr) {
        ::setenv("SANFWCTL_NV_IMAGE", (t / "nv.img").c_str(), 1);
        if (size) ::setenv("SANFWCTL_NV_SIZE", size, 1); else ::unsetenv("SANFWCTL_NV_SIZE");
        for (const char* v : {"SANFWCTL_FAIL_READ", "SANFWCTL_FAIL_WRITE", "SANFWCTL_FAIL_STATUS"}) ::unsetenv(v);
        sanfwctl_reset();
    }
    static int io(bool write, void* buf, uint64_t off, uint64_t len, uint32_t region = 2, int count = 1) {
        cpfw_ioctl_nv_access req{reinterpret_cast<uintptr_t>(buf), off, len};
        return write ? Ezosanfwctl_write_nv(-1, &region, &req, count) : Ezosanfwctl_read_nv(-1, &region, &req, count);
    }
};

// Small records straddle a page boundary; large ones take the kernel many
// page copies, so an unlocked reader would see a mix.
class NvAtomic : public ::testing::TestWithParam<uint64_t> {};

TEST_P(NvAtomic, ReadModifyWriteAcrossProcessesAndThreads) {
    Nv nv;
    const uint64_t len = GetParam(), off = 4096 - 64;
    std::vector<unsigned char> first(len);
    ASSERT_EQ(0, Nv::io(false, first.data(), off, len));  // the children inherit this descriptor
    // Two threads per process: threads share the descriptor and its flock.
    auto two_threads = [len, off](int id) {
        std::atomic<int> bad{0};
        auto worker = [&, id](int salt) {
            std::vector<unsigned char> buf(len);
            auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
            for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
                if (Nv::io(false, buf.data(), off, len) != 0) return bad.store(1);
                for (unsigned char b : buf) if (b != buf[0]) return bad.store(2);  // a torn record
                std::memset(buf.data(), (id * 7 + salt * 3 + i) % 250 + 1, len);
                if (Nv::io(true, buf.data(), off, len) != 0) return bad.store(3);
            }
        };
        std::thread a(worker, 0), b(worker, 1);
        a.join();
        b.join();
        return bad.load();
    };
    std::vector<pid_t> kids;
    for (int i = 0; i < 3; ++i) {
        pid_t p = ::fork();
        if (p == 0) ::_exit(two_threads(i + 1));
        kids.push_back(p);
    }
    EXPECT_EQ(0, two_threads(0));
    for (pid_t p : kids) {
        int st = 0;
        ASSERT_EQ(p, ::waitpid(p, &st, 0));
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, NvAtomic, ::testing::Values(128, 64 * 1024));

TEST(Sanfwctl, RejectedRequestsTransferNothing) {
    Nv nv("4096");
    struct stat st;
    char probe = 0;
    ASSERT_EQ(0, Nv::io(false, &probe, 4095, 1));
    ASSERT_EQ(0, ::stat((nv.t / "nv.img").c_str(), &st));
    EXPECT_EQ(4096, st.st_size);
    struct Case { uint64_t off, len; uint32_t region; int count; } cases[] = {
        {4096, 1, 2, 1}, {4000, 97, 2, 1}, {1, ~0ull, 2, 1}, {~0ull - 2, 8, 2, 1},
        {0, 8, 1, 1}, {0, 8, 3, 1}, {0, 8, 2, 0}, {0, 8, 2, 2}};
    for (const Case& c : cases) {
        for (bool write : {true, false}) {
            char buf[8];
            std::memset(buf, 0x5a, sizeof buf);
            EXPECT_NE(0, Nv::io(write, buf, c.off, c.len, c.region, c.count)) << c.off << "+" << c.len;
            for (char b : buf) EXPECT_EQ(0x5a, b);
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
    struct Case { const char* var; int kind; const char* spec; bool by_call; long s, n; std::vector<int> fail; } cases[] = {
        {"SANFWCTL_FAIL_READ", SANFWCTL_FAULT_READ, "2:3", false, 0, 0, {3, 4, 5}},
        {"SANFWCTL_FAIL_WRITE", SANFWCTL_FAULT_WRITE, "0:1", false, 0, 0, {1}},
        {"SANFWCTL_FAIL_STATUS", SANFWCTL_FAULT_STATUS, "5:-1", false, 0, 0, {6, 7, 8}},
        {nullptr, SANFWCTL_FAULT_WRITE, nullptr, true, 1, 2, {2, 3}},
        {nullptr, SANFWCTL_FAULT_READ, nullptr, true, 6, -1, {7, 8}},
        {nullptr, SANFWCTL_FAULT_STATUS, nullptr, true, 0, 0, {}}};
    for (const Case& c : cases) {
        Nv nv;
        if (c.var) { ::setenv(c.var, c.spec, 1); sanfwctl_reset(); }
        if (c.by_call) sanfwctl_set_fault(c.kind, c.s, c.n);
        for (int call = 1; call <= 8; ++call) {
            char val = static_cast<char>(call), got = 0;
            sanfw_getstatus_out_t st;
            int rc = c.kind == SANFWCTL_FAULT_STATUS ? Ezosanfwctl_get_status(0, &st) : Nv::io(c.kind == SANFWCTL_FAULT_WRITE, c.kind == SANFWCTL_FAULT_WRITE ? &val : &got, 10, 1);
            bool should_fail = std::find(c.fail.begin(), c.fail.end(), call) != c.fail.end();
            EXPECT_EQ(should_fail, rc != 0) << (c.var ? c.var : "call") << " call " << call;
            if (c.kind == SANFWCTL_FAULT_WRITE) {
                sanfwctl_set_fault(SANFWCTL_FAULT_READ, 0, 0);
                ASSERT_EQ(0, Nv::io(false, &got, 10, 1));
                if (!should_fail) EXPECT_EQ(val, got);
                else EXPECT_NE(val, got);  // the failed write left the image alone
            }
        }
        EXPECT_EQ(8, sanfwctl_call_count(c.kind));
        if (c.var) ::unsetenv(c.var);
    }
}

TEST(Sanfwctl, StatusReportsMasterFromEnvironment) {
    Nv nv;
    for (const char* m : {"1", "0", "3", static_cast<const char*>(nullptr)}) {
        if (m) ::setenv("SANFWCTL_MASTER", m, 1); else ::unsetenv("SANFWCTL_MASTER");
        sanfw_getstatus_out_t st;
        std::memset(&st, 0xff, sizeof st);
        ASSERT_EQ(0, Ezosanfwctl_get_status(0, &st));
        EXPECT_EQ(m ? std::atoi(m) : 0, st.master_cont);
        EXPECT_EQ(0, st.mode + st.cont_model + st.num_cont + st.rfu[0] + st.rfu[35]);
    }
}

}  // namespace
