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

// Asserts that `statement` throws exactly `Exception` whose what() contains every text of
// `parts` (an initializer list of strings).
#define EXPECT_THROW_HAS(statement, Exception, ...)                                  \
  do {                                                                               \
    try {                                                                            \
      statement;                                                                     \
      ADD_FAILURE() << "no exception from: " #statement;                             \
    } catch (const Exception& e) {                                                   \
      for (const std::string& part : std::initializer_list<std::string> __VA_ARGS__) \
        EXPECT_NE(std::string(e.what()).find(part), std::string::npos)               \
            << #statement << ": '" << e.what() << "' lacks '" << part << "'";        \
    } catch (const std::exception& e) {                                              \
      ADD_FAILURE() << "wrong exception type from " #statement ": " << e.what();     \
    }                                                                                \
  } while (0)
