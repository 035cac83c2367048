/// @file
/// One typed value of a parameter block: nothing, bool, 32-bit int, double, string, byte stream,
/// list of values, or map of named values.
///
/// Thread: one thread at a time; there are no locks. Two threads may release elements that two
/// lists share, because elements are reference counted. No thread may change an element while
/// another thread reads it.
///
/// Owner: a String or Stream owns its bytes. The elements of a List and the entries of a Map are
/// shared by every value, block and ListParams that holds them, and are freed with the last one.
///
/// Failure: std::bad_alloc only. An accessor of the wrong type is harmless: GetString and GetStream
/// return an empty string, and the numeric accessors return the bytes of the value field.
///
/// Units: a `len` is in bytes. A negative `len` counts as 0, and null `data` as empty.
#pragma once

#include <tolk/export.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tolk {
class Arena;
}

/// One typed value. See the head of the file.
class TOLK_API TolkValue {
 public:
  /// The numbers are fixed. They differ from the tag bytes of the wire encoding.
  enum Type : std::int32_t {
    None = 0,    ///< nothing
    Bool = 1,    ///< bool
    Int = 2,     ///< signed, 32 bits
    Double = 3,  ///< double
    String = 4,  ///< zero-terminated string
    Stream = 5,  ///< bytes
    List = 6,    ///< values by position
    Map = 7,     ///< values by name
  };

  TolkValue();  ///< nothing
  /// @{
  /// A value of the argument's type. A Type makes an empty value of that type.
  TolkValue(bool v);
  TolkValue(int v);
  TolkValue(double v);
  TolkValue(Type type);
  /// @}
  /// A String or Stream with a copy of exactly `len` bytes, zero bytes included.
  TolkValue(const char* data, long len, Type type);
  /// Copies strings and streams, and shares the elements of lists and maps.
  TolkValue(const TolkValue& other);
  /// Like the copy constructor. Releases the earlier content.
  TolkValue& operator=(const TolkValue& other);
  ~TolkValue();  ///< frees the elements that nothing else holds

  /// @{
  /// Return whether the value has that type.
  bool IsBool() const;
  bool IsInt() const;
  bool IsDouble() const;
  bool IsString() const;
  bool IsStream() const;
  bool IsList() const;
  /// @}

  /// @{
  /// Return the value. Test its type first.
  bool GetBool() const;
  int GetInt() const;
  double GetDouble() const;
  /// @}
  /// Zero-terminated; valid until the value is changed or destroyed.
  const char* GetString() const;
  /// Stores the length in bytes in `len`. Valid as long as the result of GetString.
  const char* GetStream(long& len) const;
  /// Never null; empty unless the value is a List.
  const std::vector<TolkValue*>* GetList() const;

  /// @{
  /// Append a new element. The operation neither tests nor changes the type of the value; start
  /// with TolkValue(TolkValue::List).
  void AddListBool(bool v);
  void AddListInt(int v);
  void AddListDouble(double v);
  void AddListString(const char* data, long len);
  void AddListStream(const char* data, long len);
  /// @}

  /// @{
  /// Set an entry. Start with TolkValue(TolkValue::Map). On purpose: the earlier value of a key is
  /// dropped and not destroyed.
  void AddListMapBool(const char* key, bool v);
  void AddListMapInt(const char* key, int v);
  void AddListMapDouble(const char* key, double v);
  void AddListMapString(const char* key, const char* data, long len);
  void AddListMapStream(const char* key, const char* data, long len);
  /// @}

  /// Releases the content; the type becomes None.
  void clear();

 private:
  friend struct TolkValueAccess;

  union Field {
    bool boolean;
    std::int32_t integer;
    double real;
    const char* text;  // zero-terminated
    std::uint64_t all;
  };

  // A value in the memory of a parsed block.
  explicit TolkValue(tolk::Arena* home) noexcept
      : type_(None), owners_(1), owns_text_(false), home_(home) {
    value_.all = 0;
  }

  Field value_;
  Type type_;
  std::uint32_t owners_;  // the lists, maps and blocks that hold this element; changed atomically
  std::size_t text_size_ = 0;
  bool owns_text_;     // false: the text lies in the arena
  tolk::Arena* home_;  // the arena that the value lies in, or null
  std::vector<TolkValue*> list_;
  std::map<std::string, TolkValue*>* map_ = nullptr;  // owned; null while there was no entry
};
