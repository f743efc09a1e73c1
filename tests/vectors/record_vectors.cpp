// Records of the first exchange, and what a side takes from them.
#include "vectors/vector_side.h"

namespace vectors {
namespace {

class RecordCases {
 public:
  // What `side` of the catalogue makes of a payload.
  void take(const std::string& name, const std::string& file, const std::string& side,
            const std::string& payload) {
    const auto taker = VectorSide::make(readCatalogue(file), side, side == kHubSide);
    taker->take(payload);
    cases.push_back({{"name", name},
                     {"catalogue", file},
                     {"side", side},
                     {"verdict", "value"},
                     {"text", payload.substr(0, payload.find('\0'))},
                     {"payload", toHex(payload)},
                     {"peer", taker->peer()}});
  }
  // The same for a text, as side left of version 1.
  void text(const std::string& name, const std::string& text) {
    std::string payload = text;
    payload.resize((text.size() + 3) / 4 * 4 + 4, '\0');
    take(name, kVersion1, "left", payload);
  }
  // What one side announces, as the other takes it.
  void exchange(const std::string& name, const std::string& file, const std::string& from,
                const std::string& taking, const std::string& to) {
    take(name, taking, to, VectorSide::make(readCatalogue(file), from, from == kHubSide)->record());
    if (from != kHubSide) cases.back()["writes"] = {{"catalogue", file}, {"side", from}};
  }

  static constexpr const char* kVersion1 = "languages/vectors/vectors.stp";
  static constexpr const char* kVersion2 = "languages/vectors/vectors_2.stp";
  static constexpr const char* kHubSide = "router";
  Json cases = Json::array();
};

}  // namespace

Json makeRecords() {
  RecordCases to;
  constexpr const char* kHub = "interfaces/hublink.stp";
  to.exchange("left of version 1", to.kVersion1, "left", to.kVersion1, "right");
  to.exchange("right of version 1", to.kVersion1, "right", to.kVersion1, "left");
  to.exchange("left of version 2, to right of 1", to.kVersion2, "left", to.kVersion1, "right");
  to.exchange("right of version 2, to left of 1", to.kVersion2, "right", to.kVersion1, "left");
  to.exchange("right of version 1, to left of 2", to.kVersion1, "right", to.kVersion2, "left");
  to.exchange("a plugin, to the hub", kHub, "plugin", kHub, to.kHubSide);
  to.exchange("a hub, to the plugin", kHub, to.kHubSide, kHub, "plugin");

  // Blanks and orders. Tags and messages here are a few of those of version 1.
  to.text("in another order",
          "msgs:(0x1 )[ { flags:0x1 name:Ask id:0x3  }  ] tags:(0x2 )[ bit last  ] flags:0x5 "
          "vstamp:\"9\" name:peer ");
  to.text("fields that nobody knows",
          "since:{ of:[ \"}\" \"\\\"\" ] at:0x1 } name:peer more:(0x2 )[ { a:1 } b ] "
          "tags:(0x1 )[ bit  ] vstamp:null msgs:(0x1 )[ { since:\"1 2\" id:0x1 by:{ { } } "
          "name:Ping flags:0x1 why:[ ] } ] flags:0x1 ");
  to.text("many blanks",
          "  name:peer   vstamp: \"a b\"  flags:  0x2  tags:(0x2 )[    bit     half ]   "
          "msgs:(0x1 )[{id:0x2 name:Ask flags:0x1 } ]  ");
  to.text("escapes", "name:peer vstamp:\"a\\\"b\\\\c\\nd\\e\" flags:0x0 ");
  to.text("a text that isn't closed", "name:peer flags:0x3 vstamp:\"open");
  to.text("UTF-8", "name:p\xC3\xA4r vstamp:\"\xE2\x82\xAC \xF0\x9F\x98\x80\" flags:0x0 ");
  to.text("no quotes around a text", "name:peer vstamp:9 flags:0x0 ");
  to.text("numbers in other bases",
          "name:peer flags:17 msgs:(1 )[ { id:010 name:Ask flags:+2 } ] ");
  to.text("numbers out of range",
          "name:peer flags:0x1FFFFFFFFF msgs:(0x1 )[ { id:-1 name:Ask flags:word } ] ");

  // Lists.
  to.text("names out of order aren't found", "tags:(0x4 )[ half bit last count  ] ");
  to.text("messages out of order aren't found",
          "msgs:(0x3 )[ { id:0x0 name:Ping flags:0x1  } { id:0x1 name:Ask flags:0x1  } "
          "{ id:0x2 name:Scalars flags:0x2  }  ] ");
  to.text("a name twice", "tags:(0x3 )[ bit bit half  ] ");
  to.text("names that nobody knows",
          "tags:(0x6 )[ Bit aaa bit bit2 count zzz  ] msgs:(0x3 )[ { id:0x7 name:Aa flags:0x2  } "
          "{ id:0x8 name:Ask flags:0x1  } { id:0x9 name:Zed flags:0x12  }  ] ");
  to.text("fewer than announced", "tags:(0xFFFFFFFF )[ bit ] msgs:(0x9 )[ { id:0x4 name:Ask } ] ");
  to.text("more than announced", "tags:(0x1 )[ bit half ] msgs:(0x0 )[ { id:0x4 name:Ask } ] ");
  to.text("no number in front", "tags:[ bit half ] flags:0x3 ");
  to.text("nothing of messages", "name:silent ");
  to.text("no messages", "name:peer msgs:(0x0 )[  ] ");
  to.text("a message that it says not to take",
          "msgs:(0x1 )[ { id:0xffffffff name:Ask flags:0x1  }  ] ");

  // Nothing of this ends a connection.
  int number = 0;
  for (const char* text : {"", "tags", "tags:", "tags:(0x9999 )[ bit", "msgs:(0x5 )[ { { { ",
                           "msgs:(0x2 )[ bit half ] ", "tags:(0x2 ) msgs:(", "name:\"",
                           "vstamp:\"\\", "] } name:peer "})
    to.text("garbled " + std::to_string(++number), text);
  return to.cases;
}

}  // namespace vectors
