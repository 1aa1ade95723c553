// addresses.h - addresses of either family from texts and as texts.
#ifndef KOUTIL_TESTS_ADDRESSES_H
#define KOUTIL_TESTS_ADDRESSES_H

#include "koutil/rawip.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>

namespace support
{

inline in46addr_t address(const std::string &text)
{
    in46addr_t result = {};
    const bool ipv6 = text.find(':') != std::string::npos;
    EXPECT_EQ(inet_pton(AF_INET6, (ipv6 ? text : "::ffff:" + text).c_str(), &result), 1) << text;
    return result;
}

inline std::string text_of(const in46addr_t &a)
{
    char name[256];
    return RawIp(&a, name);
}

} // namespace support

#endif
