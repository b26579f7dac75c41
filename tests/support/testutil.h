// What a test of the library includes: GoogleTest and the test support
// (which brings the library's public and internal headers and the stand-ins'
// test hooks), and the short names the tests use.
#ifndef SBACC_TEST_TESTUTIL_H
#define SBACC_TEST_TESTUTIL_H

#include <gtest/gtest.h>

#include "sim.h"

using sbacc_test::Bytes;
using sbacc_test::FaultEnv;
using sbacc_test::Pattern;
using sbacc_test::Sim;
using sbacc_test::Text;
using sbacc_test::TraceCapture;

#endif  // SBACC_TEST_TESTUTIL_H
