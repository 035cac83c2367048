/// @file
/// The arguments or the results of one call.
///
/// A sender appends records with the Add… operations; a receiver parses received bytes and reads
/// values by position (GetValue) and by key (GetMap). Adding does not make values readable: parse
/// the block's own bytes with ToParams for that.
///
/// Thread: any, one at a time. A result block that a call returned may be refreshed by the library
/// at any time with a later reply for the same call id; reading it meanwhile is safe.
///
/// Owner: the block owns its bytes and values. What an accessor returns belongs to the block and is
/// valid until the next Clear, Parser, ToParams or destruction.
///
/// Failure: std::bad_alloc; Parser and ToParams say false.
///
/// Units: lengths are in bytes and travel as 32 bits; a negative one counts as 0. A null text or
/// key counts as "", null data as empty.
#pragma once

#include <tolk/export.h>

#include <map>
#include <string>

class ListParams;
class TolkValue;

/// The arguments or the results of one call. See the head of the file.
class TOLK_API TolkParams {
 public:
  TolkParams();  ///< empty
  /// Copies the bytes; shares the parsed values.
  TolkParams(const TolkParams& other);
  /// On purpose: both blocks then refer to the same bytes and values, and what is added to one is
  /// seen through the other. The last of them frees them.
  TolkParams& operator=(const TolkParams& other);
  ~TolkParams();  ///< frees what no copy shares

  /// @{
  /// Append a value by position.
  void AddInt(int v);
  void AddBool(bool v);
  void AddDouble(double v);
  void AddString(const char* s);               ///< append a text, up to its first zero byte
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
  /// Takes `list` over and frees it; null is ignored.
  void AddList(ListParams* list);
  /// A new, empty list on the heap, to be given to AddList.
  static ListParams* CreateListParams();

  std::string* GetParamas();    ///< the encoded bytes themselves
  const char* GetParamasPtr();  ///< where they begin
  long GetParamasSize();        ///< how many they are
  int Size();                   ///< bytes
  int ParamsSize();             ///< positional values, once parsed
  /// Keyed values, once parsed. A result has those of its envelope too; their names begin with
  /// s_c_.
  int MapSize();

  /// Replaces the block by what `data[0..len)` encodes. False at the first malformed record; the
  /// values before it stay readable.
  bool Parser(const char* data, int len);
  /// Parses the block's own bytes.
  bool ToParams();

  TolkValue* GetValue(int i);          ///< null outside 0 … ParamsSize() - 1
  TolkValue* GetMap(const char* key);  ///< null when there is none
  /// The keyed values under the addresses of their key texts; made at the first use after a parse.
  std::map<const char*, TolkValue*>* GetMapPtr();

  /// @{
  /// A flag for hosts; the library only keeps it.
  void GetBuffer();
  bool IsGetBuffer();
  /// @}

  /// Empties the block.
  void Clear();
  /// Writes a readable dump of the parsed values to standard output.
  void print();

 protected:
  /// @{
  /// Parts of the encoding, for hosts that derive from the class.
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
  bool refreshable_ = false;  // a result block that the library may refresh under the host's hands
  // Bytes, positional values, keyed values, keyed view; counted. In a refreshable block the lowest
  // bit of the pointer says that the host has used this content; const readers set it too.
  mutable Content* content_;
};
