// Builder of a list record for TolkParams::AddList.
//
// Thread: any, one at a time. Owner: the host, until AddList takes the list over and frees it; so a
// list that goes to AddList is made with TolkParams::CreateListParams. Copies share the elements,
// which die with the last list or block that holds them. Failure: std::bad_alloc only.
#pragma once

#include <tolk/export.h>

#include <vector>

class TolkValue;

class TOLK_API ListParams {
 public:
  ListParams();
  ListParams(const ListParams& other);
  ListParams& operator=(const ListParams& other);
  ~ListParams();

  void AddBool(bool v);
  void AddInt(int v);
  void AddDouble(double v);
  void AddString(const char* data, long len);  // `len` bytes
  void AddStream(const char* data, long len);  // `len` bytes

 private:
  friend class TolkParams;

  std::vector<TolkValue*> elements_;
};
