// Shared set-up for the unit tests: a router record with buffers and fake descriptors, torn
// down again after each test so that leak checkers see nothing.
#ifndef MLDPROXYD_TESTS_TEST_SUPPORT_H
#define MLDPROXYD_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include "core/router.h"
#include "fake_kernel.h"

class RouterTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
