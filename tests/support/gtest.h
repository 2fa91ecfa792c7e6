// The header that every test includes; precompiled, since it is most of what a test file costs to compile.
#ifndef VORN_TESTS_SUPPORT_GTEST_H
#define VORN_TESTS_SUPPORT_GTEST_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#endif
