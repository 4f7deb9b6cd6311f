// AMF0 as bytes, written without the library: what players and services send, and what tests expect to read.
#pragma once

#include "support/bytes.h"

#include <string>
#include <utility>

namespace amf0 {

// One value or several, and the lengths to which the bytes may be cut so that only whole values are left.
struct Value {
    Bytes bytes;
    std::vector<size_t> wholeAt;
};

using Member = std::pair<std::string, Value>;

Value Number(double value);
Value Boolean(bool value); // as on the wire
Value String(const std::string &text);
Value Null();
Value Object(const std::vector<Member> &members);
Value EcmaArray(const std::vector<Member> &members);
Value StrictArray(const std::vector<Value> &elements);

// Values one behind the other: Values({String("play"), Number(0), Null(), String("cam")}).bytes
Value Values(const std::vector<Value> &values);

} // namespace amf0
