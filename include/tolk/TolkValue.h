/// @file
/// One typed value of a parameter block: nothing, bool, 32-bit int, double, string, byte stream,
/// list of values, or map of named values.
///
/// Thread: any, one at a time; no locks. Elements that two lists share may be released from two
/// threads at once (they are counted), but not changed while another thread reads them.
///
/// Owner: a String or Stream owns its bytes. Elements of a List and entries of a Map belong to
/// every value, block or ListParams that holds them, and die with the last one.
///
/// Failure: std::bad_alloc only. An accessor of the wrong kind is harmless: GetString and GetStream
/// give an empty text, the numeric ones the bytes of the value field.
///
/// Units: every `len` is in bytes; a negative one counts as 0, a null `data` as empty.
#pragma once

#include <tolk/export.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// One typed value. See the head of the file.
class TOLK_API TolkValue {
 public:
  /// The numbers are fixed. They are not the tag bytes of the wire encoding.
  enum Type : std::int32_t {
    None = 0,    ///< nothing
    Bool = 1,    ///< bool
    Int = 2,     ///< signed, 32 bits
    Double = 3,  ///< double
    String = 4,  ///< text, zero-terminated
    Stream = 5,  ///< bytes
    List = 6,    ///< values by position
    Map = 7,     ///< values by name
  };

  TolkValue();  ///< nothing
  /// @{
  /// A value of the argument's type; of a Type, an empty value of that kind.
  TolkValue(bool v);
  TolkValue(int v);
  TolkValue(double v);
  TolkValue(Type type);
  /// @}
  /// A copy of exactly `len` bytes, zero bytes included. For String and Stream.
  TolkValue(const char* data, long len, Type type);
  /// Strings and streams are copied; the elements of lists and maps are shared.
  TolkValue(const TolkValue& other);
  /// As the copy constructor; what the value held is released.
  TolkValue& operator=(const TolkValue& other);
  ~TolkValue();  ///< frees what nothing else holds

  /// @{
  /// Whether the value is of that kind.
  bool IsBool() const;
  bool IsInt() const;
  bool IsDouble() const;
  bool IsString() const;
  bool IsStream() const;
  bool IsList() const;
  /// @}

  /// @{
  /// The value. Ask first whether it is of that kind.
  bool GetBool() const;
  int GetInt() const;
  double GetDouble() const;
  /// @}
  /// Zero-terminated; valid until the value is changed or destroyed.
  const char* GetString() const;
  /// Stores the length in bytes into `len`. Same life time as GetString.
  const char* GetStream(long& len) const;
  /// Never null; empty unless the value is a List.
  const std::vector<TolkValue*>* GetList() const;

  /// @{
  /// Append a new element. The value's type is neither tested nor changed: start with
  /// TolkValue(TolkValue::List).
  void AddListBool(bool v);
  void AddListInt(int v);
  void AddListDouble(double v);
  void AddListString(const char* data, long len);
  void AddListStream(const char* data, long len);
  /// @}

  /// @{
  /// Set an entry. Start with TolkValue(TolkValue::Map). On purpose: a value that the key already
  /// had is dropped without being destroyed, as hosts have always seen it.
  void AddListMapBool(const char* key, bool v);
  void AddListMapInt(const char* key, int v);
  void AddListMapDouble(const char* key, double v);
  void AddListMapString(const char* key, const char* data, long len);
  void AddListMapStream(const char* key, const char* data, long len);
  /// @}

  /// Releases what the value owns; its type becomes None.
  void clear();

 private:
  friend struct TolkValueAccess;

  union Field {
    bool boolean;
    std::int32_t integer;
    double real;
    std::string* bytes;
    std::uint64_t all;
  };

  Field value_;
  Type type_;
  std::uint32_t owners_;  // how many lists, maps and blocks hold this element; changed atomically
  std::vector<TolkValue*> list_;
  std::map<std::string, TolkValue*> map_;
};
