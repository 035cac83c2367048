/// @file
/// Builder of a list record for TolkParams::AddList.
///
/// Thread: any, one at a time.
///
/// Owner: the host, until AddList takes the list over and frees it; so a list that goes to AddList
/// is made with TolkParams::CreateListParams. Copies share the elements, which die with the last
/// list or block that holds them.
///
/// Failure: std::bad_alloc only.
#pragma once

#include <tolk/export.h>

#include <vector>

class TolkValue;

/// A list on its way into a block. See the head of the file.
class TOLK_API ListParams {
 public:
  ListParams();  ///< empty
  /// Shares the elements of `other`.
  ListParams(const ListParams& other);
  /// Shares the elements of `other`, in place of those it had.
  ListParams& operator=(const ListParams& other);
  ~ListParams();  ///< frees elements that nothing else holds

  /// @{
  /// Append an element; a text or a stream of `len` bytes.
  void AddBool(bool v);
  void AddInt(int v);
  void AddDouble(double v);
  void AddString(const char* data, long len);
  void AddStream(const char* data, long len);
  /// @}

 private:
  friend class TolkParams;

  std::vector<TolkValue*> elements_;
};
