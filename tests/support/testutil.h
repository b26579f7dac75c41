// What a test of the library includes: GoogleTest, the library's public and
// internal headers, the stand-ins' test hooks, the simulated controller and
// the fault-injecting Env, and the short names the tests use.
#ifndef SBACC_TEST_TESTUTIL_H
#define SBACC_TEST_TESTUTIL_H

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fault_env.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "sim.h"

using Bytes = std::vector<uint8_t>;
using sbacc_test::FaultEnv;
using sbacc_test::Pattern;
using sbacc_test::Sim;
using sbacc_test::TraceCapture;

#endif  // SBACC_TEST_TESTUTIL_H
