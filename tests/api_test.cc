// Argument checks of the public area calls: each refusal returns its code,
// traces its line and parameter block, and touches no file and no NV.
#include <pthread.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sim.h"

using sbacc_test::FaultEnv;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;

namespace {

struct ArgCase {
  const char* name;
  std::function<int(void* rfp)> call;  // rfp: a handle opened with "r"
  int code;
  const char* error_line;
  const char* block_first;  // first argument line of the parameter block
};

char g_buf[16];
boolean_t g_flag;
void* g_fp;

const ArgCase kCases[] = {
    {"open_filename", [](void*) { return sbacc_open(nullptr, nullptr, &g_fp, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. filename=NULL", "[sbacc_open]   filename: NULL"},
    {"open_mode", [](void*) { return sbacc_open("area", nullptr, &g_fp, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. mode=NULL", "[sbacc_open]   filename: area"},
    {"open_fp", [](void*) { return sbacc_open("area", "w", nullptr, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. fp=NULL", "[sbacc_open]   filename: area"},
    {"open_closeflag", [](void*) { return sbacc_open("area", "w", &g_fp, nullptr); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. closeflag=NULL", "[sbacc_open]   filename: area"},
    {"open_upper_w", [](void*) { return sbacc_open("area", "W", &g_fp, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. mode=W", "[sbacc_open]   filename: area"},
    {"open_two_letters", [](void*) { return sbacc_open("area", "rw", &g_fp, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. mode=rw", "[sbacc_open]   filename: area"},
    {"open_empty_mode", [](void*) { return sbacc_open("area", "", &g_fp, &g_flag); }, SBACC_E_PARAM,
     "[sbacc_open] parameter error. mode=", "[sbacc_open]   filename: area"},
    {"close_null", [](void*) { return sbacc_close(nullptr); }, SBACC_E_PARAM,
     "[sbacc_close] parameter error. fp=NULL", "[sbacc_close]   fp: NULL"},
    {"write_fp", [](void*) { return sbacc_write(g_buf, 1, 0, nullptr); }, SBACC_E_PARAM,
     "[sbacc_write] parameter error. fp=NULL", "[sbacc_write]   buf: !NULL"},
    {"write_buf", [](void* fp) { return sbacc_write(nullptr, 1, 0, fp); }, SBACC_E_PARAM,
     "[sbacc_write] parameter error. buf=NULL", "[sbacc_write]   buf: NULL"},
    {"write_zero", [](void* fp) { return sbacc_write(g_buf, 0, 0, fp); }, SBACC_E_PARAM,
     "[sbacc_write] parameter error. wsize=0", "[sbacc_write]   buf: !NULL"},
    {"write_offset", [](void* fp) { return sbacc_write(g_buf, 1, -1, fp); }, SBACC_E_PARAM,
     "[sbacc_write] parameter error. offset=-1", "[sbacc_write]   buf: !NULL"},
    {"write_readonly", [](void* fp) { return sbacc_write(g_buf, 1, 0, fp); }, SBACC_E_NOTALLOWED,
     "[sbacc_write] function error. openmode=1", "[sbacc_write]   buf: !NULL"},
    {"read_fp", [](void*) { return sbacc_read(g_buf, 1, 0, nullptr); }, SBACC_E_PARAM,
     "[sbacc_read] parameter error. fp=NULL", "[sbacc_read]   buf: !NULL"},
    {"read_buf", [](void* fp) { return sbacc_read(nullptr, 1, 0, fp); }, SBACC_E_PARAM,
     "[sbacc_read] parameter error. buf=NULL", "[sbacc_read]   buf: NULL"},
    {"read_size", [](void* fp) { return sbacc_read(g_buf, -4, 0, fp); }, SBACC_E_PARAM,
     "[sbacc_read] parameter error. rsize=-4", "[sbacc_read]   buf: !NULL"},
    {"read_offset", [](void* fp) { return sbacc_read(g_buf, 1, -9, fp); }, SBACC_E_PARAM,
     "[sbacc_read] parameter error. offset=-9", "[sbacc_read]   buf: !NULL"},
    {"write_size_fp", [](void*) { return sbacc_write_size(1, nullptr); }, SBACC_E_PARAM,
     "[sbacc_write_size] parameter error. fp=NULL", "[sbacc_write_size]   fsize: 1"},
    {"write_size_negative", [](void* fp) { return sbacc_write_size(-1, fp); }, SBACC_E_PARAM,
     "[sbacc_write_size] parameter error. fsize=-1", "[sbacc_write_size]   fsize: -1"},
    {"write_size_readonly", [](void* fp) { return sbacc_write_size(0, fp); }, SBACC_E_NOTALLOWED,
     "[sbacc_write_size] function error. openmode=1", "[sbacc_write_size]   fsize: 0"},
    {"read_size_fp", [](void*) { return sbacc_read_size(nullptr); }, SBACC_E_PARAM,
     "[sbacc_read_size] parameter error. fp=NULL", "[sbacc_read_size]   fp: NULL"},
};

class ArgChecks : public ::testing::TestWithParam<ArgCase> {};

TEST_P(ArgChecks, RefusedWithCodeTraceAndBlockWithoutTouchingAnything) {
  const ArgCase& c = GetParam();
  Sim sim(1);
  sim.SetAreas({{"area", 0x1000, 4096, 1}});
  void* fp = nullptr;
  boolean_t clean;
  ASSERT_EQ(0, sbacc_open("area", "w", &fp, &clean));
  ASSERT_EQ(0, sbacc_close(fp));
  void* rfp = nullptr;
  ASSERT_EQ(0, sbacc_open("area", "r", &rfp, &clean));

  const long nv_calls = sanfwctl_call_count(SANFWCTL_FAULT_READ) + sanfwctl_call_count(SANFWCTL_FAULT_WRITE);
  g_fp = reinterpret_cast<void*>(0x77);
  TraceCapture trace;
  int rc;
  {
    FaultEnv env;
    rc = c.call(rfp);
    EXPECT_EQ(0, env.Calls(FaultEnv::kOpen) + env.Calls(FaultEnv::kRead) + env.Calls(FaultEnv::kWrite));
  }
  EXPECT_EQ(c.code, rc);
  EXPECT_EQ(nv_calls, sanfwctl_call_count(SANFWCTL_FAULT_READ) + sanfwctl_call_count(SANFWCTL_FAULT_WRITE));
  EXPECT_EQ(reinterpret_cast<void*>(0x77), g_fp);
  EXPECT_TRUE(trace.Has(c.error_line)) << trace.Dump();
  EXPECT_TRUE(trace.Has(c.block_first)) << trace.Dump();
  const std::string fn = std::string(c.error_line).substr(1, std::string(c.error_line).find(']') - 1);
  EXPECT_TRUE(trace.Has("[" + fn + "] " + fn + " (")) << trace.Dump();
  EXPECT_TRUE(trace.Has("[" + fn + "]   retcode: " + std::to_string(c.code))) << trace.Dump();
  EXPECT_TRUE(trace.Has("[" + fn + "] [LEAVE] " + std::to_string(c.code))) << trace.Dump();
  ASSERT_EQ(0, sbacc_close(rfp));
}

INSTANTIATE_TEST_SUITE_P(Calls, ArgChecks, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<ArgCase>& i) { return std::string(i.param.name); });

TEST(Api, ZeroSizeIsASizeAndReadPastEndIsNoError) {
  Sim sim(1);
  sim.SetAreas({{"area", 0x1000, 4096, 1}});
  void* fp = nullptr;
  boolean_t clean;
  ASSERT_EQ(0, sbacc_open("area", "w", &fp, &clean));
  EXPECT_EQ(0, sbacc_write_size(0, fp));
  EXPECT_EQ(20, sbacc_write_size(20, fp));  // the new size, not 0
  TraceCapture trace;
  char buf[8];
  EXPECT_EQ(0, sbacc_read(buf, 8, 20, fp));
  EXPECT_TRUE(trace.Has("[sbacc_read] sbacc_ma_read error. retcode=0"));
  EXPECT_EQ(0, trace.CountContaining("[sbacc_read] sbacc_read ("));
  ASSERT_EQ(0, sbacc_close(fp));
}

TEST(Api, CancellationIsEnabledAfterEveryCall) {
  Sim sim(1);
  sim.SetAreas({{"area", 0x1000, 4096, 1}});
  int old;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
  EXPECT_EQ(SBACC_E_PARAM, sbacc_read_size(nullptr));
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
  EXPECT_EQ(PTHREAD_CANCEL_ENABLE, old);
  void* fp = nullptr;
  boolean_t clean;
  ASSERT_EQ(0, sbacc_open("area", "w", &fp, &clean));
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
  EXPECT_EQ(PTHREAD_CANCEL_ENABLE, old);
  ASSERT_EQ(0, sbacc_close(fp));
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
}

}  // namespace
