#include "server/bind_address.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace spotserver {
namespace {

using ::testing::AnyOf;

TEST(BindAddress, NumbersStayAsTheyAre) {
  for (const char* host : {"0.0.0.0", "127.0.0.1", "127.0.0.2"}) {
    EXPECT_EQ(bind_address(host), host);
  }
}

TEST(BindAddress, ANameIsItsFirstAddressOfThisMachine) {
  EXPECT_THAT(bind_address("localhost"), AnyOf("::1", "127.0.0.1"));
}

TEST(BindAddress, AnEmptyHostIsTheLoopback) {
  EXPECT_THAT(bind_address(""), AnyOf("::1", "127.0.0.1"));
}

TEST(BindAddress, WhatIsNoAddressOfThisMachineStaysForTheMessage) {
  for (const char* host : {"192.0.2.1", "2001:db8::1", "no host at all", "127.0.0.1 "}) {
    EXPECT_EQ(bind_address(host), host);
  }
}

}  // namespace
}  // namespace spotserver
