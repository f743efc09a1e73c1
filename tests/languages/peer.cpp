// One program of the matrix of languages, in C++: a provider or a requester of matrix.stp, in the
// version that it is compiled with. What it says on standard output is compared by matrix.py, which
// tells what a peer does.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "hublink_plugin/hub_finder.h"
#include "matrix.h"

namespace {

using hublink::Result;

constexpr std::size_t kBulkPacket = 65536;
constexpr int kBulkPackets = 320;

struct Checksum {
  std::uint32_t low = 1, high = 0;
  std::size_t packets = 0;
  // Adler-32.
  void add(const unsigned char* bytes, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      low += bytes[i];
      high += low;
      if (i % 4096 == 4095) low %= 65521, high %= 65521;
    }
    low %= 65521, high %= 65521;
    ++packets;
  }
  std::string text() const {
    return std::to_string((high << 16 | low)) + " of " + std::to_string(packets);
  }
};

std::string shown(const std::string& text) {
  return text;
}
template <class T>
std::string shown(T number) {
  if constexpr (std::is_floating_point_v<T>)
    return std::to_string(static_cast<int>(number * 8));
  else
    return std::to_string(+number);
}
template <class T>
std::string shown(const std::vector<T>& list) {
  std::string text;
  for (const T& each : list) text += (text.empty() ? "" : ",") + shown(each);
  return text;
}

// "name=value;" for a field that this version has.
#define SHOW(object, field) \
  if constexpr (requires { object.field; }) text += #field "=" + shown(object.field) + ";"

template <class T>
std::string seenOf(const T& all) {
  std::string text;
  SHOW(all, added);
  SHOW(all, bit);
  SHOW(all, half);
  SHOW(all, word);
  SHOW(all, wide);
  SHOW(all, single);
  SHOW(all, real);
  SHOW(all, text);
  SHOW(all, path);
  SHOW(all.inner, note);
  SHOW(all.inner.deep, added);
  SHOW(all.inner.deep, word);
  SHOW(all.inner.deep, texts);
  SHOW(all, numbers);
  SHOW(all, halves);
  SHOW(all, bytes);
  return text;
}

template <class T>
std::string replyOf(const T& reply) {
  std::string text;
  SHOW(reply, radded);
  SHOW(reply, rbit);
  SHOW(reply, rhalf);
  SHOW(reply, rword);
  SHOW(reply, rwide);
  SHOW(reply, rsingle);
  SHOW(reply, rreal);
  SHOW(reply, rtext);
  SHOW(reply, rpath);
  return text;
}

template <class T>
void fill(T& all) {
  if constexpr (requires { all.added; }) all.added = "new";
  if constexpr (requires { all.half; }) all.half = 65535, all.single = 1.5F;
  if constexpr (requires { all.halves; }) all.halves = {0, 65535};
  if constexpr (requires { all.inner.deep.added; }) all.inner.deep.added = 9;
  all.bit = true;
  all.word = INT32_MIN;
  all.wide = UINT64_MAX;
  all.real = -2.25;
  all.text = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80 \"q\" \\";
  all.path = "/a b";
  all.inner.note = "in";
  all.inner.deep.word = 4;
  all.inner.deep.texts = {"a", "", "\xE2\x82\xAC"};
  all.numbers = {1, (std::uint64_t{1} << 53) + 1};
  all.bytes = {0, 255};
}

template <class T>
void fillReply(T& reply) {
  if constexpr (requires { reply.radded; }) reply.radded = 7;
  if constexpr (requires { reply.rhalf; }) reply.rhalf = 65535, reply.rsingle = 0.5F;
  if constexpr (requires { reply.rpath; }) reply.rpath = "/p";
  reply.rbit = true;
  reply.rword = INT32_MIN;
  reply.rwide = UINT64_MAX;
  reply.rreal = -0.25;
  reply.rtext = "gr\xC3\xBC\xC3\x9F";
}

void say(const std::string& text) {
  std::printf("%s\n", text.c_str());
}

void sendText(HublinkLink& link, const std::string& text) {
  link.send(text.data(), text.size());
}

class Provider : public matrix::Provider {
 public:
  void onEnd() override { say("ended"); }
  void take(const unsigned char* bytes, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(bytes), std::min<std::size_t>(size, 8));
    if (size == kBulkPacket)
      bulk_.add(bytes, size);
    else if (text == "finish")
      sendText(*link(), bulk_.text()), bulk_ = {};
    else
      link()->send(bytes, size);
  }

 protected:
  Result<matrix::EverythingReply> onEverything(const matrix::Everything& call) override {
    matrix::EverythingReply reply;
    fillReply(reply);
    reply.seen = seenOf(call);
    return reply;
  }
  Result<matrix::ChainReply> onChain(const matrix::Chain& call) override {
    matrix::ChainReply reply;
    reply.sum = 1;
    if (call.depth == 0) return reply;
    const Result<matrix::BackReply> inner = back({.depth = call.depth});
    if (!inner) return inner.error();
    reply.sum = inner->sum + 1;
    return reply;
  }
  Result<matrix::RefuseReply> onRefuse(const matrix::Refuse& call) override {
    return hublink::refuse(call.why);
  }
  void onCount(const matrix::Count& message) override {
    sum_ += message.number;
    if (message.number % 100 == 0) progress({.number = message.number});
  }
  Result<matrix::TotalReply> onTotal(const matrix::Total&) override {
    return matrix::TotalReply{.sum = sum_};
  }
#if MATRIX_VERSION == 2
  Result<matrix::ExtraReply> onExtra(const matrix::Extra& call) override {
    return matrix::ExtraReply{.sum = call.number + 1};
  }
#endif

 private:
  std::int32_t sum_ = 0;
  Checksum bulk_;
};

class Requester : public matrix::Requester {
 public:
  int progressed = 0;
  bool ended = false;
  void onEnd() override { ended = true; }

 protected:
  Result<matrix::BackReply> onBack(const matrix::Back& call) override {
    const Result<matrix::ChainReply> inner = chain({.depth = call.depth - 1});
    if (!inner) return inner.error();
    return matrix::BackReply{.sum = inner->sum + 1};
  }
  void onProgress(const matrix::Progress&) override { ++progressed; }
};

template <class T>
std::string failureOf(const Result<T>& result) {
  if (result) return "none";
  if (result.failure() == hublink::Failure::linkEnded) return "link ended";
  return hublink::failureText(result.failure());
}

void exchange(Requester& requester) {
  matrix::Everything all;
  fill(all);
  const auto everything = requester.everything(all);
  say("everything: " + everything->seen);
  say("reply: " + replyOf(*everything));
  say("chain: " + std::to_string(requester.chain({.depth = 3})->sum));
  const auto refused = requester.refuse({.why = "not \"today\" \xE2\x82\xAC"});
  say("refused: " + refused.text() +
      (!refused && refused.failure() == hublink::Failure::refused ? "" : " " + failureOf(refused)));
  for (std::int32_t number = 1; number <= 1000; ++number) requester.count({.number = number});
  const std::int32_t sum = requester.total({})->sum;
  say("total: " + std::to_string(sum) + " progress " + std::to_string(requester.progressed));
#if MATRIX_VERSION == 2
  const auto extra = requester.extra({.number = 41});
  const bool unknown = !extra && extra.failure() == hublink::Failure::notSupported;
  say(std::string("extra: ") + (requester.knows("Extra") ? "known " : "unknown ") +
      (unknown ? "not supported" : std::to_string(extra->sum)));
#endif
  say(std::string("knows: ") + (requester.knowsField("added") ? "added" : "") +
      (requester.knowsField("half") ? "half" : ""));
}

// A packet to and fro, on the link that has an interface, too.
void sendPacket(HublinkLink& link) {
  HublinkLink::Packet packet;
  sendText(link, "hello");
  if (link.receive(packet, 10000)) say("packet: " + std::string(packet.begin(), packet.end()));
}

void sendBulk(HublinkLink& link) {
  HublinkLink::Packet packet;
  Checksum sum;
  std::vector<unsigned char> bytes(kBulkPacket);
  for (int i = 0; i < kBulkPackets; ++i) {
    std::memset(bytes.data(), i & 0xFF, bytes.size());
    sum.add(bytes.data(), bytes.size());
    link.send(bytes.data(), bytes.size());
  }
  sendText(link, "finish");
  if (!link.receive(packet, 30000)) return say("bulk: no answer");
  const std::string answer(packet.begin(), packet.end());
  say(answer == sum.text() ? "bulk: intact" : "bulk: " + answer + " instead of " + sum.text());
}

void provide(HublinkPlugin& plugin, const std::string& service) {
  plugin.registerService(service, [](const std::shared_ptr<HublinkLink>& link) {
    auto provider = std::make_unique<Provider>();
    Provider* taker = provider.get();
    link->onPacket(
        [taker](const unsigned char* bytes, std::size_t size) { taker->take(bytes, size); });
    hublink::keepOn(link, std::move(provider));
  });
  say("ready");
  plugin.run();
}

// Sends `megabytes` in packets, which may have to wait for the receiver.
void flood(HublinkLink& link, int megabytes) {
  say("flooding");
  std::string line;
  std::getline(std::cin, line);
  const std::vector<unsigned char> bytes(kBulkPacket);
  for (int i = 0; i < megabytes * 16; ++i) link.send(bytes.data(), bytes.size());
  say("handed over");
  sendText(link, "finish");
  HublinkLink::Packet packet;
  say(link.receive(packet, 60000) ? "flooded: " + std::string(packet.begin(), packet.end())
                                  : "flooded: no answer");
}

void request(HublinkPlugin& plugin) {
  say("ready");
  for (std::string line; std::getline(std::cin, line); plugin.flush(), say("done")) {
    std::istringstream words(line);
    std::string what, service;
    words >> what >> service;
    auto found = hublink::find<Requester>(plugin, service);
    if (!found) {
      say("failed: " + found.text());
      continue;
    }
    Requester& requester = **found;  // its link ends with it
    const std::shared_ptr<HublinkLink> link = requester.link();
    if (what == "run") {
      exchange(requester);
      sendPacket(*link);
    } else if (what == "bulk") {
      sendBulk(*link);
    } else if (what == "hold") {
      say(requester.total({}) ? "held" : "no answer");
      plugin.serveUntil([&] { return requester.ended; }, 30000);
      say(requester.ended ? "ended" : "it goes on");
      say("call: " + failureOf(requester.total({})));
    } else if (what == "flood") {
      int megabytes = 0;
      words >> megabytes;
      if (!requester.total({})) say("no answer");
      flood(*link, megabytes);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  HublinkPlugin plugin;
  std::string error;
  if (argc < 3 || !connectToHub(plugin, argc, argv, error)) {
    std::fprintf(stderr, "peer: %s\n", error.c_str());
    return 1;
  }
  const std::string role = argv[1];
  if (role == "provider")
    provide(plugin, argv[2]);
  else
    request(plugin);
}
