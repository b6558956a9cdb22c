#pragma once

#include <gtest/gtest.h>

#include <string>

// Asserts that `statement` throws exactly `Exception` whose what() equals `message`.
#define EXPECT_THROW_MSG(statement, Exception, message)                          \
  do {                                                                           \
    try {                                                                        \
      statement;                                                                 \
      ADD_FAILURE() << "no exception from: " #statement;                         \
    } catch (const Exception& e) {                                               \
      EXPECT_EQ(std::string(e.what()), std::string(message)) << #statement;      \
    } catch (const std::exception& e) {                                          \
      ADD_FAILURE() << "wrong exception type from " #statement ": " << e.what(); \
    }                                                                            \
  } while (0)
