#include "rpc/dcerpc/ndr.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>

namespace kesttcs::dcerpc {

namespace {

// `alignment` is 1, 2, 4 or 8.
size_t PaddingFor(size_t offset, size_t alignment) { return (0 - offset) & (alignment - 1); }

template <typename U>
U ByteSwap(U v) {
  if constexpr (sizeof(U) == 1) {
    return v;
  } else if constexpr (sizeof(U) == 2) {
    return __builtin_bswap16(v);
  } else if constexpr (sizeof(U) == 4) {
    return __builtin_bswap32(v);
  } else {
    return __builtin_bswap64(v);
  }
}

// Converts between the host's order and `order`, both ways.
template <typename U>
U ToOrder(U v, ByteOrder order) {
  bool host_little = std::endian::native == std::endian::little;
  return host_little == (order == ByteOrder::kLittle) ? v : ByteSwap(v);
}

}  // namespace

bool NdrReader::Has(size_t at, size_t n) {
  if (!ok_ || at > data_.size() || n > data_.size() - at) {
    ok_ = false;
    return false;
  }
  return true;
}

bool NdrReader::Align(size_t alignment) {
  size_t pad = PaddingFor(pos_, alignment);
  if (!Has(pos_, pad)) return false;
  pos_ += pad;
  return true;
}

template <typename T>
bool NdrReader::ReadInteger(T& out) {
  size_t start = pos_ + PaddingFor(pos_, sizeof(T));
  if (!Has(start, sizeof(T))) return false;  // covers the padding too
  std::make_unsigned_t<T> v;
  std::memcpy(&v, data_.data() + start, sizeof(v));
  out = static_cast<T>(ToOrder(v, order_));
  pos_ = start + sizeof(T);
  return true;
}

bool NdrReader::ReadUint8(uint8_t& out) { return ReadInteger(out); }
bool NdrReader::ReadUint16(uint16_t& out) { return ReadInteger(out); }
bool NdrReader::ReadUint32(uint32_t& out) { return ReadInteger(out); }
bool NdrReader::ReadUint64(uint64_t& out) { return ReadInteger(out); }

bool NdrReader::ReadBytes(size_t n, std::span<const uint8_t>& out) {
  if (!Has(pos_, n)) return false;
  out = data_.subspan(pos_, n);
  pos_ += n;
  return true;
}

bool NdrReader::ReadBytes(size_t n, std::vector<uint8_t>& out) {
  std::span<const uint8_t> view;
  if (!ReadBytes(n, view)) return false;
  out.assign(view.begin(), view.end());
  return true;
}

bool NdrReader::ReadFixed(std::span<uint8_t> out) {
  std::span<const uint8_t> view;
  if (!ReadBytes(out.size(), view)) return false;
  std::copy(view.begin(), view.end(), out.begin());
  return true;
}

bool NdrReader::ReadArrayCount(uint32_t& count, size_t min_element_size) {
  size_t saved = pos_;
  uint32_t c = 0;
  if (!ReadUint32(c)) return false;
  if (min_element_size != 0 && c > remaining() / min_element_size) {
    pos_ = saved;
    return Fail();
  }
  count = c;
  return true;
}

bool NdrReader::ReadConformantBytes(std::span<const uint8_t>& out) {
  size_t saved = pos_;
  uint32_t count = 0;
  if (!ReadArrayCount(count, 1)) return false;
  if (!ReadBytes(count, out)) {
    pos_ = saved;
    return false;
  }
  return true;
}

bool NdrReader::ReadConformantBytes(std::vector<uint8_t>& out) {
  std::span<const uint8_t> view;
  if (!ReadConformantBytes(view)) return false;
  out.assign(view.begin(), view.end());
  return true;
}

bool NdrReader::ReadUniquePointer(bool& present) {
  uint32_t referent = 0;
  if (!ReadUint32(referent)) return false;
  present = referent != 0;
  return true;
}

NdrWriter::NdrWriter(std::vector<uint8_t>& out) : out_(out), base_(out.size()) {
  // Most stubs and PDUs are small: one allocation up front instead of several growing ones, while
  // keeping the growth geometric for writers that follow each other on one buffer.
  constexpr size_t kRoom = 256;
  if (out.capacity() - out.size() < kRoom) {
    out.reserve(std::max(out.size() + kRoom, 2 * out.capacity()));
  }
}

void NdrWriter::Align(size_t alignment) {
  out_.resize(out_.size() + PaddingFor(size(), alignment), 0);
}

template <typename T>
void NdrWriter::WriteInteger(T v) {
  // Padding and value in one resize; the padding is zero.
  size_t at = out_.size() + PaddingFor(size(), sizeof(T));
  out_.resize(at + sizeof(T));
  v = ToOrder(v, ByteOrder::kLittle);
  std::memcpy(out_.data() + at, &v, sizeof(v));
}

void NdrWriter::WriteUint8(uint8_t v) { out_.push_back(v); }
void NdrWriter::WriteUint16(uint16_t v) { WriteInteger(v); }
void NdrWriter::WriteUint32(uint32_t v) { WriteInteger(v); }
void NdrWriter::WriteUint64(uint64_t v) { WriteInteger(v); }

void NdrWriter::WriteBytes(std::span<const uint8_t> bytes) {
  out_.insert(out_.end(), bytes.begin(), bytes.end());
}

void NdrWriter::WriteConformantBytes(std::span<const uint8_t> bytes) {
  WriteArrayCount(static_cast<uint32_t>(bytes.size()));
  WriteBytes(bytes);
}

void NdrWriter::WriteUniquePointer(bool present) {
  if (!present) {
    WriteUint32(0);
    return;
  }
  WriteUint32(next_referent_);
  next_referent_ += 4;
}

}  // namespace kesttcs::dcerpc
