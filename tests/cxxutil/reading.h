// What the tests of configuration files share: a directory to write them into, and what is reported
// while they are read.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "../indgen/scratch.h"

/// What `action` reports, without the directory's name.
inline std::string reported(const Scratch& scratch, const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  std::string text = testing::internal::GetCapturedStderr();
  const std::string directory = scratch.path() + "/";
  for (std::size_t at; (at = text.find(directory)) != std::string::npos;)
    text.erase(at, directory.size());
  return text;
}
