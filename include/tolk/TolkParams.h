/// @file
/// A parameter block: the arguments or the results of one call.
///
/// A sender appends values with the Add… operations. A receiver parses received bytes and reads the
/// values by position (GetValue) and by key (GetMap). An added value becomes readable when ToParams
/// parses the block's own bytes.
///
/// Thread: one thread at a time, except that several may send the block as arguments. The library
/// may replace the content of a result block with a later reply for the same call id while one
/// thread reads the block. Several threads must not read one result block at the same time.
///
/// Owner: the block owns its bytes and values. A pointer from an accessor is valid until the next
/// Clear, Parser or ToParams, or the end of the block.
///
/// Failure: std::bad_alloc. Parser and ToParams return false for malformed bytes.
///
/// Units: lengths are in bytes and are sent as 32 bits. A negative length counts as 0, a null
/// string or key as "", and null data as empty.
#pragma once

#include <tolk/export.h>

#include <map>
#include <string>

class ListParams;
class TolkValue;

/// A parameter block. See the head of the file.
class TOLK_API TolkParams {
 public:
  TolkParams();  ///< empty
  /// Copies the bytes and shares the parsed values.
  TolkParams(const TolkParams& other);
  /// On purpose: both blocks then share bytes and values, and a value that is added to one appears
  /// in the other. The last block frees them.
  TolkParams& operator=(const TolkParams& other);
  ~TolkParams();  ///< frees the content that no other block shares

  /// @{
  /// Append a value by position.
  void AddInt(int v);
  void AddBool(bool v);
  void AddDouble(double v);
  void AddString(const char* s);               ///< append a string, up to its first zero byte
  void AddStream(const char* data, long len);  ///< append bytes, zero bytes included
  /// @}
  /// @{
  /// Append a value by key.
  void AddKeyValueInt(const char* key, int v);
  void AddKeyValueBool(const char* key, bool v);
  void AddKeyValueDouble(const char* key, double v);
  void AddKeyValueString(const char* key, const char* s);
  void AddKeyValueStream(const char* key, const char* data, long len);
  /// @}
  /// Appends the list, takes ownership of it and frees it. Null is ignored.
  void AddList(ListParams* list);
  /// Returns a new, empty list for AddList.
  static ListParams* CreateListParams();

  std::string* GetParamas();    ///< the encoded bytes
  const char* GetParamasPtr();  ///< the first of the encoded bytes
  long GetParamasSize();        ///< the number of encoded bytes
  int Size();                   ///< the number of encoded bytes
  int ParamsSize();             ///< the number of parsed positional values
  /// The number of parsed keyed values. A result includes the keys of its envelope, which begin
  /// with s_c_.
  int MapSize();

  /// Replaces the content by the values that `data[0..len)` encodes. Returns false at the first
  /// malformed record; the values before it are readable.
  bool Parser(const char* data, int len);
  /// Parses the block's own bytes. Returns false as Parser does.
  bool ToParams();

  TolkValue* GetValue(int i);          ///< null outside 0 … ParamsSize() - 1
  TolkValue* GetMap(const char* key);  ///< null if the key is missing
  /// All keyed values. A map key is the address of the key's text, so look up by GetMap. The map is
  /// made at the first use after a parse.
  std::map<const char*, TolkValue*>* GetMapPtr();

  /// @{
  /// A flag for the host: GetBuffer sets it. The library does not use it.
  void GetBuffer();
  bool IsGetBuffer();
  /// @}

  /// Removes all bytes and values.
  void Clear();
  /// Prints the parsed values to standard output.
  void print();

 protected:
  /// @{
  /// Parts of the encoding, for derived classes.
  void IntTobytes(int v, std::string* out);
  void DoubleTobytes(double v, std::string* out);
  void AddCheckSize();
  int BytesToInt(const char* p);
  double BytesToDouble(const char* p);
  bool CheckSize(int n, const char* p);
  /// @}

 private:
  friend struct TolkParamsAccess;
  struct Content;

  bool get_buffer_ = false;
  bool refreshable_ = false;  // a result block whose content the library may replace
  // Bytes, positional values, keyed values, keyed view; reference counted. In a refreshable block,
  // the lowest bit of the pointer means that the host has used this content. Const readers set it
  // too.
  mutable Content* content_;
};
