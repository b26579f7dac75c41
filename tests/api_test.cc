// Argument checks of the public area calls: each refusal returns its code,
// traces its line and parameter block, and touches no file and no NV; every
// call leaves thread cancellation enabled, whatever the state on entry.
#include "testutil.h"

namespace {

char g_buf[16];
boolean_t g_flag;
void* g_fp;
constexpr int P = SBACC_E_PARAM, N = SBACC_E_NOTALLOWED;
int Open(const char* name, const char* mode, bool fp = true, bool flag = true) {
  return sbacc_open(name, mode, fp ? &g_fp : nullptr, flag ? &g_flag : nullptr);
}

struct ArgCase {
  std::function<int(void* rfp)> call;  // rfp: a handle opened with "r"
  int code;
  const char* error_line;
  const char* block_first;  // first argument line of the parameter block, after "[fn]   "
};

const ArgCase kCases[] = {
    {[](void*) { return Open(nullptr, nullptr); }, P, "[sbacc_open] parameter error. filename=NULL", "filename: NULL"},
    {[](void*) { return Open("area", nullptr); }, P, "[sbacc_open] parameter error. mode=NULL", "filename: area"},
    {[](void*) { return Open("area", "w", false); }, P, "[sbacc_open] parameter error. fp=NULL", "filename: area"},
    {[](void*) { return Open("area", "w", true, false); }, P, "[sbacc_open] parameter error. closeflag=NULL",
     "filename: area"},
    {[](void*) { return Open("area", "W"); }, P, "[sbacc_open] parameter error. mode=W", "filename: area"},
    {[](void*) { return Open("area", "rw"); }, P, "[sbacc_open] parameter error. mode=rw", "filename: area"},
    {[](void*) { return Open("area", ""); }, P, "[sbacc_open] parameter error. mode=", "filename: area"},
    {[](void*) { return sbacc_close(nullptr); }, P, "[sbacc_close] parameter error. fp=NULL", "fp: NULL"},
    {[](void*) { return sbacc_write(g_buf, 1, 0, nullptr); }, P, "[sbacc_write] parameter error. fp=NULL", "buf: !NULL"},
    {[](void* fp) { return sbacc_write(nullptr, 1, 0, fp); }, P, "[sbacc_write] parameter error. buf=NULL", "buf: NULL"},
    {[](void* fp) { return sbacc_write(g_buf, 0, 0, fp); }, P, "[sbacc_write] parameter error. wsize=0", "buf: !NULL"},
    {[](void* fp) { return sbacc_write(g_buf, 1, -1, fp); }, P, "[sbacc_write] parameter error. offset=-1", "buf: !NULL"},
    {[](void* fp) { return sbacc_write(g_buf, 1, 0, fp); }, N, "[sbacc_write] function error. openmode=1", "buf: !NULL"},
    {[](void*) { return sbacc_read(g_buf, 1, 0, nullptr); }, P, "[sbacc_read] parameter error. fp=NULL", "buf: !NULL"},
    {[](void* fp) { return sbacc_read(nullptr, 1, 0, fp); }, P, "[sbacc_read] parameter error. buf=NULL", "buf: NULL"},
    {[](void* fp) { return sbacc_read(g_buf, -4, 0, fp); }, P, "[sbacc_read] parameter error. rsize=-4", "buf: !NULL"},
    {[](void* fp) { return sbacc_read(g_buf, 1, -1, fp); }, P, "[sbacc_read] parameter error. offset=-1", "buf: !NULL"},
    {[](void*) { return sbacc_write_size(1, nullptr); }, P, "[sbacc_write_size] parameter error. fp=NULL", "fsize: 1"},
    {[](void* fp) { return sbacc_write_size(-1, fp); }, P, "[sbacc_write_size] parameter error. fsize=-1", "fsize: -1"},
    {[](void* fp) { return sbacc_write_size(0, fp); }, N, "[sbacc_write_size] function error. openmode=1", "fsize: 0"},
    {[](void*) { return sbacc_read_size(nullptr); }, P, "[sbacc_read_size] parameter error. fp=NULL", "fp: NULL"},
};

TEST(Api, RefusedWithCodeTraceAndBlockWithoutTouchingAnything) {
  for (const ArgCase& c : kCases) {
    SCOPED_TRACE(c.error_line);
    sbacc_test::Sim sim(1);
    sim.SetAreas({{"area", 0x1000, 4096, 1}});
    // Every call, refused or not, turns cancellation on again on its way out.
    int cancel = PTHREAD_CANCEL_DISABLE;
    auto enabled = [&cancel] {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
      return cancel == PTHREAD_CANCEL_ENABLE;
    };
    ASSERT_TRUE(Open("area", "w") == 0 && enabled() && sbacc_close(g_fp) == 0 && enabled());  // the area exists
    ASSERT_EQ(0, Open("area", "r"));
    void* const rfp = g_fp;
    g_fp = reinterpret_cast<void*>(0x77);
    sbacc_test::TraceCapture trace;
    FaultEnv env;
    EXPECT_EQ(c.code, c.call(rfp));
    EXPECT_TRUE(enabled());
    for (FaultEnv::Op op : {FaultEnv::kOpen, FaultEnv::kRead, FaultEnv::kWrite, FaultEnv::kNvRead, FaultEnv::kNvWrite})
      EXPECT_EQ(0, env.Calls(op)) << op;
    EXPECT_EQ(reinterpret_cast<void*>(0x77), g_fp);
    const std::string line = c.error_line, fn = "[" + line.substr(1, line.find(']') - 1) + "]";
    for (const std::string& want : {line, fn + "   " + c.block_first, fn + " " + fn.substr(1, fn.size() - 2) + " (",
                                    fn + "   retcode: " + std::to_string(c.code), fn + " [LEAVE] " + std::to_string(c.code)})
      EXPECT_TRUE(trace.Has(want)) << want << "\n" << trace.Dump();
    ASSERT_EQ(0, sbacc_close(rfp));
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancel);
  }
}

}  // namespace
