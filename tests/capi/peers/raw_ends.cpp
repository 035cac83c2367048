#include "raw_ends.h"

#include <algorithm>

namespace tolk::test {

std::string c_address(const Address& at) {
  if (at.transport == Transport::tcp4) return "tcp4:" + at.host + ":" + at.port;
  if (at.transport == Transport::tcp6) return "tcp6:[" + at.host + "]:" + at.port;
  return "pipe:" + at.port;
}

Owned<tolk_server> c_server(const Address& at, const Methods& methods,
                            tolk_server_options options) {
  options.size = sizeof options;
  options.methods = methods.get();
  tolk_server* made = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_server_listen(c_address(at).c_str(), &options, &made, &error), TOLK_OK)
      << tolk_error_text(error);
  tolk_error_free(error);
  return Owned<tolk_server>(made);
}

Owned<tolk_client> c_client(const Address& at, const Methods& methods,
                            tolk_client_options options) {
  options.size = sizeof options;
  options.methods = methods.get();
  tolk_client* made = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_connect(c_address(at).c_str(), &options, &made, &error), TOLK_OK)
      << tolk_error_text(error);
  tolk_error_free(error);
  return Owned<tolk_client>(made);
}

void NamesSeen::add(const std::string& name) {
  const std::lock_guard lock(mutex_);
  names_.push_back(name);
}

bool NamesSeen::has(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return std::find(names_.begin(), names_.end(), name) != names_.end();
}

bool NamesSeen::has_prefix(const std::string& prefix) const {
  const std::lock_guard lock(mutex_);
  return std::any_of(names_.begin(), names_.end(),
                     [&](const std::string& name) { return name.starts_with(prefix); });
}

}  // namespace tolk::test
