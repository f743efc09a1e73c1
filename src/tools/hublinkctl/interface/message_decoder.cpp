#include "tools/hublinkctl/interface/message_decoder.h"

#include <bit>
#include <map>
#include <string_view>
#include <variant>

#include "stp_transport/spec/stp_stub_support.h"
#include "stp_transport/wire/stp_wire.h"

namespace hublinkctl {
namespace {

using stpc::Field;
using stpc::Scalar;

constexpr int kDeepest = 16;  // blocks in each other

Facts valueOf(const char* text) {
  return text ? Facts(text) : Facts();
}
template <class T>
Facts valueOf(T number) {
  return number;
}

class FormatDecoder {
 public:
  FormatDecoder(STPReceivedMessage& message, const FieldNames& names)
      : names_(names), reader_(message, names.peerTags) {}

  Facts read(const std::vector<Field>& fields) {
    Facts values = Facts::object();
    std::map<std::size_t, AnyArray> arrays;  // by the number of their field
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const Field& field = fields[i];
      const std::int32_t tag = names_.number(field.name);
      if (field.isCount()) {
        AnyArray& array = arrays[field.counterpart];
        array = arrayOf(fields[field.counterpart].scalar);
        std::visit([&](auto& each) { reader_.count(tag, each); }, array);
      } else if (field.isArray()) {
        values[field.name] = readArray(field, tag, arrays.at(i));
      } else if (field.kind == Field::Kind::block) {
        const STPStubReader::Block block(reader_, tag);
        Facts inside = read(field.fields);
        values[field.name] = field.isArrayBlock() ? std::move(inside.front()) : std::move(inside);
      } else {
        values[field.name] = readScalar(field.scalar, tag);
      }
    }
    return values;
  }

 private:
  using AnyArray =
      std::variant<STPArray<std::uint8_t>, STPArray<std::uint16_t>, STPArray<std::int32_t>,
                   STPArray<std::uint64_t>, STPArray<float>, STPArray<double>, StringArray>;

  static AnyArray arrayOf(Scalar scalar) {
    switch (scalar) {
      case Scalar::u1:
        return STPArray<std::uint8_t>();
      case Scalar::u2:
        return STPArray<std::uint16_t>();
      case Scalar::u4:
        return STPArray<std::int32_t>();
      case Scalar::u8:
        return STPArray<std::uint64_t>();
      case Scalar::f4:
        return STPArray<float>();
      case Scalar::f8:
        return STPArray<double>();
      case Scalar::str:
      case Scalar::fn:
        break;
    }
    return StringArray();
  }

  Facts readArray(const Field& field, std::int32_t tag, AnyArray& array) {
    Facts elements = Facts::array();
    std::visit(
        [&](auto& each) {
          if constexpr (!std::is_same_v<decltype(each), StringArray&>) {
            if (field.kind == Field::Kind::dynamicArray) reader_.packed(tag, each);
          }
          if (field.kind == Field::Kind::pointerArray) reader_.elements(each);
          for (std::int32_t i = 0; i < each.count; ++i) elements.push_back(valueOf(each.data[i]));
        },
        array);
    return elements;
  }

  Facts readScalar(Scalar scalar, std::int32_t tag) {
    switch (scalar) {
      case Scalar::u1:
        return reader_.u1(tag);
      case Scalar::u2:
        return reader_.u2(tag);
      case Scalar::u4:
        return reader_.u4(tag);
      case Scalar::u8:
        return reader_.u8(tag);
      case Scalar::f4:
        return reader_.f4(tag);
      case Scalar::f8:
        return reader_.f8(tag);
      case Scalar::str:
      case Scalar::fn:
        break;
    }
    return valueOf(reader_.str(tag));
  }

  const FieldNames& names_;
  STPStubReader reader_;
};

// Walks over the fields of a payload, or of a block in it.
class FieldWalk {
 public:
  FieldWalk(std::string_view bytes, const FieldNames& names, int depth)
      : bytes_(bytes), names_(names), depth_(depth) {}

  Facts read() {
    Facts values = Facts::object();
    while (next()) {
      if (isArrayAhead(values))
        takeElements(values);
      else
        values[nameOf(tag_)] = value();
    }
    return values;
  }

 private:
  std::uint32_t wordAt(std::size_t at) const {
    return at + 4 <= bytes_.size()
               ? stpReadWord(reinterpret_cast<const unsigned char*>(bytes_.data()) + at)
               : 0;
  }
  // 64 bits stand as two words, the high one first.
  std::uint64_t pairIn(std::size_t offset) const {
    return std::uint64_t{wordAt(offset)} << 32 | wordAt(offset + 4);
  }

  // Steps to the next field: its tag, its class with size, and where its value stands.
  bool next() {
    at_ = (end_ + 3) & ~std::size_t{3};
    const std::uint32_t word = wordAt(at_);
    if (word == 0) return false;
    at_ += 4;
    tag_ = word >> STP_FIELD_TAG_SHIFT;
    kind_ = word & (STP_FIELD_CLASS_MASK | STP_FIELD_SIZE_MASK);
    std::size_t size = word & STP_FIELD_SIZE_MASK;
    if (size == 0) {
      size = wordAt(at_);
      at_ += 4;
    }
    if (at_ > bytes_.size() || size > bytes_.size() - at_) return false;
    end_ = at_ + size;
    return true;
  }

  std::string nameOf(std::uint32_t tag) const {
    const bool isKnown = tag < names_.peersNames.size() && !names_.peersNames[tag].empty();
    return isKnown ? names_.peersNames[tag] : "#" + std::to_string(tag);
  }

  Facts value() const {
    switch (kind_) {
      case STP_FIELD_STRING: {
        const std::string_view text = bytes_.substr(at_, end_ - at_);
        return text.empty() ? Facts() : Facts(std::string(text.substr(0, text.find('\0'))));
      }
      case STP_FIELD_U8:
        return bytes_[at_] != 0;
      case STP_FIELD_U16:
        return elementAt(at_, 2);
      case STP_FIELD_U32:
        return elementAt(at_, 4);
      case STP_FIELD_U64:
        return elementAt(at_, 8);
      case STP_FIELD_F32:
        return std::bit_cast<float>(wordAt(at_));
      case STP_FIELD_F64:
        return std::bit_cast<double>(pairIn(at_));
      case STP_FIELD_STRUCT:
        if (depth_ == kDeepest) return Facts();
        return FieldWalk(bytes_.substr(at_, end_ - at_), names_, depth_ + 1).read();
      case STP_FIELD_ARRAY:
        return packed();
      default:
        return Facts();
    }
  }

  Facts elementAt(std::size_t at, std::size_t size) const {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes_[at + i]); };
    if (size == 1) return byte(0);
    if (size == 2) return byte(0) | byte(1) << 8;
    if (size == 4) return static_cast<std::int32_t>(wordAt(at));
    return pairIn(at);
  }

  // Bare numbers behind their count, whose size the length tells.
  Facts packed() const {
    Facts elements = Facts::array();
    const std::size_t count = wordAt(at_), start = at_ + 4;
    if (start > end_ || count == 0 || (end_ - start) % count != 0) return elements;
    const std::size_t size = (end_ - start) / count;
    if (size != 1 && size != 2 && size != 4 && size != 8) return elements;
    for (std::size_t at = start; at < end_; at += size) elements.push_back(elementAt(at, size));
    return elements;
  }

  // The fixed tags of an array may be the numbers of fields, too: an array has as many elements as
  // it says, and as a field in front of it has said. An empty one looks like any field that is 0.
  bool isArrayAhead(const Facts& before) const {
    if (tag_ != STP_TAG_ARRAY_COUNT || kind_ != STP_FIELD_U32) return false;
    FieldWalk ahead = *this;
    const std::uint32_t count = wordAt(at_);
    const std::string name = nameOf(tag_);
    const bool isField = tag_ < names_.peersNames.size() && !stpc::isPlaceholder(name);
    if (count == 0 && isField) return false;
    for (std::uint32_t i = 0; i < count; ++i)
      if (!ahead.next() || ahead.tag_ != STP_TAG_ARRAY_ELEMENT) return false;
    return !countIn(before, static_cast<std::int32_t>(count)).empty();
  }
  static std::string countIn(const Facts& before, std::int32_t count) {
    std::string name;
    for (const auto& [field, value] : before.items())
      if (value.is_number_integer() && value == count) name = field;
    return name;
  }
  void takeElements(Facts& values) {
    const auto count = static_cast<std::int32_t>(wordAt(at_));
    Facts elements = Facts::array();
    for (std::int32_t i = 0; i < count && next(); ++i)
      elements.push_back(kind_ == STP_FIELD_U8 ? elementAt(at_, 1) : value());
    values[countIn(values, count)] = std::move(elements);
  }

  std::string_view bytes_;
  const FieldNames& names_;
  int depth_;
  std::size_t at_ = 0;
  std::size_t end_ = 0;
  std::uint32_t tag_ = 0;
  std::uint32_t kind_ = 0;
};

}  // namespace

Facts decodeFields(STPReceivedMessage& message, const std::vector<Field>& fields,
                   const FieldNames& names) {
  return FormatDecoder(message, names).read(fields);
}

Facts decodeUnknown(const STPReceivedMessage& message, const FieldNames& names) {
  const std::string_view payload(
      reinterpret_cast<const char*>(message.storage()) + message.header.headerSize,
      static_cast<std::size_t>(message.header.payloadSize));
  return FieldWalk(payload, names, 0).read();
}

}  // namespace hublinkctl
