// Two versions of an interface talk, and what arrives is held against what was given.
//
// A message's fields are walked by visitors that fill them with random values, show them as texts
// under their paths, and write and read them in the ascii form. A field that both versions have
// arrives as it was given; one that the sender doesn't have is 0, null or empty.
#pragma once

#include <cstdio>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "indgen/find.h"
#include "stp/message_bytes.h"
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

class AsciiWriter {
 public:
  explicit AsciiWriter(STPMessage& message) : message_(message) {}
  void open(const char* name) { message_.writeBlockBegin(name); }
  void close(const char*) { message_.writeBlockEnd(); }
  void operator()(const char* name, const char* text) { message_.writeString(text, name); }
  template <class Number>
  requires std::is_arithmetic_v<Number>
  void operator()(const char* name, Number value) {
    if constexpr (std::is_floating_point_v<Number>)
      message_.writeQuoted(shown(value).c_str(), name);
    else
      message_.writeInt64(static_cast<std::uint64_t>(value), name);
  }
  template <class T>
  void operator()(const char* name, const STPArray<T>& array) {
    message_.writeArrayBegin(array.count, name);
    for (std::int32_t i = 0; i < array.count; ++i) (*this)(nullptr, array.data[i]);
    message_.writeArrayEnd();
  }

 private:
  STPMessage& message_;
};

class AsciiReader {
 public:
  explicit AsciiReader(STPReceivedMessage& message) : message_(message) {}
  void open(const char* name) { message_.enterBlock(&marks_.emplace_back(), name); }
  void close(const char*) {
    message_.leaveBlock(&marks_.back());
    marks_.pop_back();
  }
  void operator()(const char* name, const char*& text) {
    texts_.push_back(name ? message_.readString(name) : message_.readString());
    text = texts_.back();
  }
  template <class Number>
  requires std::is_arithmetic_v<Number>
  void operator()(const char* name, Number& value) {
    if constexpr (std::is_floating_point_v<Number>) {
      std::int32_t length = 0;
      const char* digits = name ? message_.readQuoted(name, &length) : message_.readQuoted(&length);
      value = static_cast<Number>(std::atof(std::string(digits, std::size_t(length)).c_str()));
    } else {
      value = static_cast<Number>(name ? message_.readInt64(name) : message_.readInt64());
    }
  }
  template <class T>
  void operator()(const char* name, STPArray<T>& array) {
    STPReceivedMessage::Mark mark;
    array.count = message_.enterArray(&mark, name);
    const std::shared_ptr<T[]> data(new T[static_cast<std::size_t>(array.count) + 1]);
    for (std::int32_t i = 0; i < array.count && message_.nextValue(); ++i)
      (*this)(nullptr, data[i]);
    message_.leaveArray(&mark);
    kept_.push_back(data);
    array.data = data.get();
  }

 private:
  STPReceivedMessage& message_;
  std::deque<STPReceivedMessage::Mark> marks_;
  std::deque<gen_text> texts_;
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

/// One message in the ascii form, written in the order of one version and read in the other's.
template <class Sent, class Taken>
void talkInAscii(unsigned seed) {
  Filler filler(seed);
  Sent sent{};
  Taken taken{};
  sent.walk(filler);
  STPMessage message;
  AsciiWriter writer(message);
  sent.walk(writer);
  STPReceivedMessage packet = received(message);
  AsciiReader reader(packet);
  taken.walk(reader);
  expectTaken(valuesOf(sent), valuesOf(taken), "ascii");
}
