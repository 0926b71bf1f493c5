#pragma once

#include "support/MessageCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

/// What a process that ends with this fatal message leaves on standard error.
inline std::string fatalText(const std::string& words)
{
    return "{fatal:" + words + "}";
}

/// Expects that `statement` ends the process with a fatal message of exactly these words.
#define EXPECT_FATAL(statement, words)                                                             \
    EXPECT_DEATH(                                                                                  \
        {                                                                                          \
            const MessageCapture fatalCapture;                                                     \
            statement;                                                                             \
        },                                                                                         \
        ::testing::HasSubstr(fatalText(words)))
