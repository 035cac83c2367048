/// @file
/// A builder of a list for TolkParams::AddList.
///
/// Thread: one thread at a time.
///
/// Owner: the host. AddList takes ownership of a list from TolkParams::CreateListParams and frees
/// it. Copies share the elements, which are freed with the last list or block that holds them.
///
/// Failure: std::bad_alloc only.
#pragma once

#include <tolk/export.h>

#include <vector>

class TolkValue;

/// A list that will be added to a block. See the head of the file.
class TOLK_API ListParams {
 public:
  ListParams();  ///< empty
  /// Shares the elements of `other`.
  ListParams(const ListParams& other);
  /// Replaces the elements by those of `other`, which both lists then share.
  ListParams& operator=(const ListParams& other);
  ~ListParams();  ///< frees the elements that no other list or block holds

  /// @{
  /// Append an element. A string or a stream has `len` bytes.
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
