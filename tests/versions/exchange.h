// Two versions of an interface talk, and what arrives is held against what was given.
//
// A message's fields are walked by visitors that fill them with random values and show them as
// texts under their paths. A field that both versions have arrives as it was given; one that the
// sender doesn't have is 0, null or empty.
#pragma once

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "indgen/find.h"
#include "stp_transport/spec/stp_stub_support.h"
#include "stpc/in_process.h"

inline std::string shown(const char* text) {
  return text ? '"' + std::string(text) + '"' : "null";
}
inline std::string shown(const gen_text& text) {
  return shown(text.get());
}
template <class Number>
requires std::is_arithmetic_v<Number> std::string shown(Number value) {
  char text[40];
  if constexpr (std::is_integral_v<Number>)
    return std::to_string(value);
  else
    return std::snprintf(text, sizeof text, "%.17g", static_cast<double>(value)), text;
}
template <class T>
std::string shown(const STPArray<T>& array) {
  std::string text = "[";
  for (std::int32_t i = 0; i < array.count; ++i) text += shown(array.data[i]) + " ";
  return text + "]";
}

/// Values and those of a missing field, by the path of the field.
using Values = std::map<std::string, std::pair<std::string, std::string>>;

class Shower {
 public:
  void open(const char* name) { path_ += name + std::string("."); }
  void close(const char* name) { path_.resize(path_.size() - std::strlen(name) - 1); }
  void operator()(const char* name, const auto& value) {
    values[path_ + name] = {shown(value), shown(std::remove_cvref_t<decltype(value)>{})};
  }
  Values values;

 private:
  std::string path_;
};

Values valuesOf(auto& message) {
  Shower shower;
  message.walk(shower);
  return std::move(shower.values);
}

/// Small numbers are frequent: they look like the counts of arrays.
class Filler {
 public:
  explicit Filler(unsigned seed) : random_(seed) {}
  void open(const char*) {}
  void close(const char*) {}
  void operator()(const char*, auto& value) { fill(value); }

 private:
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
  void fill(const char*& text) {
    static const char* const kTexts[] = {nullptr, "", "/", "/a", "/longer\"\nx", "/b c"};
    text = kTexts[below(6)];
  }
  void fill(gen_text& text) {
    const char* source;
    fill(source);
    text = source ? gen_absolute_path(source) : gen_text();
  }
  template <class Number>
  requires std::is_arithmetic_v<Number>
  void fill(Number& value) { value = static_cast<Number>(below(2) ? below(4) : random_()); }
  template <class T>
  void fill(STPArray<T>& array) {
    const std::uint32_t count = below(5);
    const std::shared_ptr<T[]> data(new T[count + 1]);
    for (std::uint32_t i = 0; i < count; ++i) fill(data[i]);
    kept_.push_back(data);
    array = {static_cast<std::int32_t>(count), data.get()};
  }

  std::mt19937_64 random_;
  std::vector<std::shared_ptr<void>> kept_;
};

inline void expectTaken(const Values& given, const Values& got, const std::string& message) {
  for (const auto& [path, value] : got) {
    const auto place = given.find(path);
    EXPECT_EQ(value.first, place == given.end() ? value.second : place->second.first)
        << message << " " << path << (place == given.end() ? ", which wasn't sent" : "");
  }
}

/// What passes between two sides, message by message.
class Talk {
 public:
  explicit Talk(unsigned seed) : filler_(seed) {}

  void fill(auto& message) {
    message.walk(filler_);
    given_ = valuesOf(message);
    got_.clear();
    arrived_.clear();
  }
  void arrived(const char* name, auto& message) {
    arrived_ += name;
    got_ = valuesOf(message);
  }
  void answer(auto& reply) {
    reply.walk(filler_);
    answered_ = valuesOf(reply);
  }
  void checkReply(auto& reply, bool isAnswered) {
    EXPECT_EQ(isAnswered, !arrived_.empty());
    expectTaken(isAnswered ? answered_ : Values(), valuesOf(reply), arrived_ + " reply");
  }
  void check(const std::string& name, const STPSpecClass& receiver, const STPStatus& status) {
    pair.pump();
    const bool isKnown = receiver.messageId(name.c_str()) >= 0;
    EXPECT_EQ(arrived_, isKnown ? name : "");
    EXPECT_EQ(status.code, isKnown ? 0 : STP_UNSUPPORTED) << name << " " << status.message;
    expectTaken(given_, got_, name);
  }

  InProcessPair pair;

 private:
  Filler filler_;
  Values given_, got_, answered_;
  std::string arrived_;
};

template <class Left, class Right>
void talkBothWays(unsigned seed) {
  Talk talk(seed);
  const auto left = makeCounted<Left>();
  const auto right = makeCounted<Right>();
  left->talk = right->talk = &talk;
  talk.pair.join(*left, *right);
  for (int round = 0; round < 20; ++round) {
    Left::sendAll(*left, *right, talk);
    Right::sendAll(*right, *left, talk);
  }
}
