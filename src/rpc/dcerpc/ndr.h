// NDR 2.0 codec for DCE/RPC stub data: a bounded reader and a writer over one call's stub bytes.
//
// Alignment is relative to the start of the stub data (the first byte after the request or
// response header), which is what NDR requires: a 4-byte integer starts at a multiple of 4 from
// the stub start, an 8-byte one at a multiple of 8, and the padding in between is skipped on read
// and written as zeros.
//
// The reader never reads outside its span and never allocates more than the bytes it still holds
// could encode: every count it reads (an array's conformance) is checked against the remaining
// bytes before anything is copied or sized. A failed read leaves the cursor where it was and sets a
// sticky failure flag, so a stub may chain reads and test ok() once at the end; every later read
// fails as well. The reader accepts both integer representations (little- and big-endian
// data representation); the writer always writes little-endian, as this runtime sends.
//
// Wire shapes used by the interface stubs (C = conformance, the max count, a 4-byte aligned
// uint32):
//   [in] UINT32 n, [in, size_is(n)] BYTE* p      (top-level ref pointer)  C, then C bytes
//   [in, unique] T* p                            referent id (0 = null), then T if non-null
//   [out] UINT32* pn, [out, size_is(, *pn)] BYTE** pp
//                                                 n, then referent id, then (if non-null) C, C
//                                                 bytes
//   fixed structure                              its members in order, aligned to its largest
//   member
// Embedded pointers of a structure are written as referent ids inside the structure and their
// referents follow the structure (deferred), in member order; the stubs arrange that order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kesttcs::dcerpc {

// Integer byte order of a data representation (first drep byte, high nibble: 0 = big, 1 = little).
enum class ByteOrder : uint8_t { kBig = 0, kLittle = 1 };

// Reads NDR 2.0 data from a span that must outlive the reader.
class NdrReader {
 public:
  explicit NdrReader(std::span<const uint8_t> stub, ByteOrder order = ByteOrder::kLittle)
      : data_(stub), order_(order) {}

  // True while no read has failed.
  bool ok() const { return ok_; }
  // Offset of the cursor from the stub start.
  size_t position() const { return pos_; }
  // Bytes left after the cursor.
  size_t remaining() const { return data_.size() - pos_; }
  ByteOrder byte_order() const { return order_; }

  // Skips padding up to the next multiple of `alignment` (1, 2, 4 or 8). Fails (sticky) when the
  // padding runs past the end.
  [[nodiscard]] bool Align(size_t alignment);

  // Primitive reads: align to the type's size, then read it in the reader's byte order. On
  // failure `out` is unchanged, the cursor does not move and ok() turns false.
  [[nodiscard]] bool ReadUint8(uint8_t& out);    // NDR small / byte / boolean
  [[nodiscard]] bool ReadUint16(uint16_t& out);  // NDR short
  [[nodiscard]] bool ReadUint32(uint32_t& out);  // NDR long
  [[nodiscard]] bool ReadUint64(uint64_t& out);  // NDR hyper

  // Reads `n` unaligned raw bytes (a fixed byte array such as a nonce). `out` views the stub
  // buffer; it stays valid as long as that buffer.
  [[nodiscard]] bool ReadBytes(size_t n, std::span<const uint8_t>& out);
  // Same, copying into `out` (resized to n only after the bounds check).
  [[nodiscard]] bool ReadBytes(size_t n, std::vector<uint8_t>& out);
  // Copies exactly out.size() bytes (a fixed-size field, e.g. a 20-byte digest).
  [[nodiscard]] bool ReadFixed(std::span<uint8_t> out);

  // Reads the conformance (max count) of a conformant array whose elements take at least
  // `min_element_size` bytes each on the wire, and checks that the bytes left could hold that
  // many elements. Use this before sizing any container from a count.
  [[nodiscard]] bool ReadArrayCount(uint32_t& count, size_t min_element_size);

  // A conformant byte array: max count, then that many bytes. `out` views the stub buffer.
  [[nodiscard]] bool ReadConformantBytes(std::span<const uint8_t>& out);
  [[nodiscard]] bool ReadConformantBytes(std::vector<uint8_t>& out);

  // A unique (or full) pointer's referent id: `present` is true for a non-zero id, and the
  // referent follows (at once for a top-level pointer, deferred for an embedded one).
  [[nodiscard]] bool ReadUniquePointer(bool& present);

  // Fails the reader on purpose, for a stub that finds a value it cannot accept (e.g. a size that
  // disagrees with another parameter). Always returns false.
  bool Fail() {
    ok_ = false;
    return false;
  }

 private:
  // Checks that `n` bytes follow `at`; sets the failure flag when they do not.
  bool Has(size_t at, size_t n);
  template <typename T>
  bool ReadInteger(T& out);

  std::span<const uint8_t> data_;
  size_t pos_ = 0;
  ByteOrder order_;
  bool ok_ = true;
};

// Appends NDR 2.0 data (little-endian) to a byte vector. Alignment is relative to the vector's
// size when the writer was created (the stub start), so a caller may hand in a buffer that already
// holds a PDU header.
class NdrWriter {
 public:
  explicit NdrWriter(std::vector<uint8_t>& out);

  // Bytes written since construction.
  size_t size() const { return out_.size() - base_; }

  // Writes zero padding up to the next multiple of `alignment` (1, 2, 4 or 8).
  void Align(size_t alignment);

  // Primitive writes, each aligned to its size.
  void WriteUint8(uint8_t v);
  void WriteUint16(uint16_t v);
  void WriteUint32(uint32_t v);
  void WriteUint64(uint64_t v);

  // Raw unaligned bytes (a fixed byte array).
  void WriteBytes(std::span<const uint8_t> bytes);

  // Conformance of a conformant array (aligned uint32).
  void WriteArrayCount(uint32_t count) { WriteUint32(count); }
  // A conformant byte array: count, then the bytes.
  void WriteConformantBytes(std::span<const uint8_t> bytes);

  // A unique pointer's referent id: zero when absent, otherwise the next id of this writer
  // (0x00020000, then +4 for each, as MIDL-generated stubs number them). The caller writes the
  // referent when present.
  void WriteUniquePointer(bool present);

 private:
  template <typename T>
  void WriteInteger(T v);

  std::vector<uint8_t>& out_;
  size_t base_;
  uint32_t next_referent_ = 0x00020000;
};

}  // namespace kesttcs::dcerpc
