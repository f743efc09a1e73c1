#include "tools/hublinkctl/interface/message_encoder.h"

#include <cfloat>
#include <cmath>
#include <deque>
#include <limits>
#include <type_traits>

#include "stp_transport/spec/stp_stub_support.h"

namespace hublinkctl {
namespace {

using stpc::Field;
using stpc::Scalar;

const Field* find(const std::vector<Field>& fields, const std::string& name) {
  for (const Field& field : fields)
    if (field.name == name) return &field;
  return nullptr;
}

bool takes(const Facts& value, std::int64_t least, std::uint64_t most, std::uint64_t& number) {
  if (!value.is_number_integer()) return false;
  // What is negative or beyond 63 bits stands in one of the two forms alone.
  if (value.is_number_unsigned()) {
    number = value.get<std::uint64_t>();
    return number <= most;
  }
  number = static_cast<std::uint64_t>(value.get<std::int64_t>());
  return value.get<std::int64_t>() >= least && (value.get<std::int64_t>() < 0 || number <= most);
}

template <class T>
bool toNumber(const Facts& value, T& number) {
  if constexpr (std::is_floating_point_v<T>) {
    if (!value.is_number() || std::fabs(value.get<double>()) > std::numeric_limits<T>::max())
      return false;
    number = value.get<T>();
    return true;
  } else {
    // %u4% is signed in some hands and unsigned in others.
    constexpr bool isSigned = std::is_signed_v<T>;
    std::uint64_t bits = 0;
    const bool fits = takes(value, isSigned ? std::numeric_limits<T>::min() : 0,
                            std::numeric_limits<std::make_unsigned_t<T>>::max(), bits);
    number = static_cast<T>(bits);
    return fits;
  }
}
bool toNumber(const Facts& value, std::uint8_t& number) {
  std::uint64_t bits = 0;
  if (value.is_boolean())
    bits = value.get<bool>() ? 1 : 0;
  else if (!takes(value, 0, 255, bits))
    return false;
  number = static_cast<std::uint8_t>(bits);
  return true;
}

class Encoder {
 public:
  Encoder(STPMessage& message, const FieldNames& names, std::string& error)
      : message_(message), names_(names), error_(error) {}

  bool put(const std::vector<Field>& fields, const Facts& values, const std::string& path) {
    for (const auto& [name, value] : values.items()) {
      const Field* field = find(fields, name);
      if (!field)
        return fail("no field " + path + name + ": " +
                    (path.empty() ? "the message" : path.substr(0, path.size() - 1)) + " has " +
                    namesOf(fields));
      if (field->isCount())
        return fail("field " + path + name + " is the count of " + path +
                    fields[field->counterpart].name + ", which tells it");
    }
    for (const Field& field : fields) {
      const std::string& given = field.isCount() ? fields[field.counterpart].name : field.name;
      if (const auto value = values.find(given); value != values.end())
        if (!putField(field, *value, path + field.name)) return false;
    }
    return true;
  }

 private:
  bool fail(std::string text) {
    error_ = std::move(text);
    return false;
  }
  bool failFit(const std::string& path, const Facts& value, Scalar scalar) {
    return fail("field " + path + ": " + jsonText(value) + " doesn't fit %" +
                stpc::spelling(scalar).name + "%");
  }

  bool putField(const Field& field, const Facts& value, const std::string& path) {
    const std::int32_t tag = names_.number(field.name);
    if (field.isCount()) {
      message_.putU32(tag, value.is_array() ? static_cast<std::uint32_t>(value.size()) : 0);
      return true;
    }
    switch (field.kind) {
      case Field::Kind::scalar:
        return putScalar(field.scalar, tag, value, path);
      case Field::Kind::block:
        return putBlock(field, tag, value, path);
      case Field::Kind::pointerArray:
      case Field::Kind::dynamicArray:
        break;
    }
    if (!value.is_array()) return fail("field " + path + ": " + jsonText(value) + " is no array");
    return putArray(field, tag, value, path);
  }

  bool putBlock(const Field& field, std::int32_t tag, const Facts& value, const std::string& path) {
    Facts inside = value;
    if (field.isArrayBlock() && value.is_array())
      inside = Facts::object({{field.fields[1].name, value}});
    if (!inside.is_object())
      return fail("field " + path + ": " + jsonText(value) + " is no object with " +
                  namesOf(field.fields));
    const STPStubBlock block(message_, tag);
    return put(field.fields, inside, path + ".");
  }

  bool putScalar(Scalar scalar, std::int32_t tag, const Facts& value, const std::string& path) {
    switch (scalar) {
      case Scalar::u1:
        return putNumber<std::uint8_t>(&STPMessage::putU8, scalar, tag, value, path);
      case Scalar::u2:
        return putNumber<std::uint16_t>(&STPMessage::putU16, scalar, tag, value, path);
      case Scalar::u4:
        return putNumber<std::int32_t>(&STPMessage::putU32, scalar, tag, value, path);
      case Scalar::u8:
        return putNumber<std::uint64_t>(&STPMessage::putU64, scalar, tag, value, path);
      case Scalar::f4:
        return putNumber<float>(&STPMessage::putF32, scalar, tag, value, path);
      case Scalar::f8:
        return putNumber<double>(&STPMessage::putF64, scalar, tag, value, path);
      case Scalar::str:
      case Scalar::fn:
        break;
    }
    const char* text = nullptr;
    if (!toText(value, scalar, path, text)) return false;
    if (scalar == Scalar::fn)
      stpPutPath(message_, tag, text);
    else
      message_.putString(tag, text);
    return true;
  }

  template <class T, class Wire>
  bool putNumber(void (STPMessage::*write)(std::int32_t, Wire), Scalar scalar, std::int32_t tag,
                 const Facts& value, const std::string& path) {
    T number = 0;
    if (!toNumber(value, number)) return failFit(path, value, scalar);
    (message_.*write)(tag, static_cast<Wire>(number));
    return true;
  }

  // The text lives as long as the value.
  bool toText(const Facts& value, Scalar scalar, const std::string& path, const char*& text) {
    text = nullptr;
    if (value.is_null()) return true;
    if (!value.is_string()) return failFit(path, value, scalar);
    const auto& owned = value.get_ref<const std::string&>();
    if (owned.find('\0') != std::string::npos)
      return fail("field " + path + ": a text can't have a zero byte in it");
    text = owned.c_str();
    return true;
  }

  bool putArray(const Field& field, std::int32_t tag, const Facts& value, const std::string& path) {
    switch (field.scalar) {
      case Scalar::u1:
        return putNumbers<std::uint8_t>(field, tag, value, path);
      case Scalar::u2:
        return putNumbers<std::uint16_t>(field, tag, value, path);
      case Scalar::u4:
        return putNumbers<std::int32_t>(field, tag, value, path);
      case Scalar::u8:
        return putNumbers<std::uint64_t>(field, tag, value, path);
      case Scalar::f4:
        return putNumbers<float>(field, tag, value, path);
      case Scalar::f8:
        return putNumbers<double>(field, tag, value, path);
      case Scalar::str:
      case Scalar::fn:
        break;
    }
    std::vector<const char*> texts;
    for (const Facts& element : value) {
      texts.emplace_back();
      if (!toText(element, field.scalar, place(path, texts.size() - 1), texts.back())) return false;
    }
    const StringArray array{static_cast<std::int32_t>(texts.size()), texts.data()};
    if (field.scalar == Scalar::fn)
      stpPutPaths(message_, array);
    else
      stpPutElements(message_, array);
    return true;
  }

  template <class T>
  bool putNumbers(const Field& field, std::int32_t tag, const Facts& value,
                  const std::string& path) {
    std::vector<T> numbers;
    for (const Facts& element : value) {
      numbers.emplace_back();
      if (!toNumber(element, numbers.back()))
        return failFit(place(path, numbers.size() - 1), element, field.scalar);
    }
    const STPArray<T> array{static_cast<std::int32_t>(numbers.size()), numbers.data()};
    if (field.kind == Field::Kind::dynamicArray)
      stpPutPacked(message_, tag, array);
    else
      stpPutElements(message_, array);
    return true;
  }

  static std::string place(const std::string& path, std::size_t index) {
    return path + "[" + std::to_string(index) + "]";
  }

  STPMessage& message_;
  const FieldNames& names_;
  std::string& error_;
};

}  // namespace

std::string namesOf(const std::vector<Field>& fields) {
  std::string text;
  for (const Field& field : fields)
    if (!field.isCount()) text += (text.empty() ? "" : ", ") + field.name;
  return text.empty() ? "no fields" : text;
}

Facts parseArguments(const std::vector<std::string>& arguments, const std::vector<Field>& fields,
                     std::string& error) {
  Facts values = Facts::object();
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals), text = argument.substr(equals + 1);
    if (values.contains(name)) {
      error = "field " + name + " is given twice";
      return Facts();
    }
    const Field* field = find(fields, name);
    const bool isText = field && field->kind == Field::Kind::scalar && stpc::isText(field->scalar);
    Facts value = isText ? Facts(text) : Facts::parse(text, nullptr, false);
    // What is no JSON is a text where none is wanted, or a field that isn't there.
    values[name] = value.is_discarded() ? Facts(text) : std::move(value);
  }
  return values;
}

bool encodeFields(STPMessage& message, const std::vector<Field>& fields, const Facts& values,
                  const FieldNames& names, std::string& error) {
  return Encoder(message, names, error).put(fields, values, "");
}

}  // namespace hublinkctl
