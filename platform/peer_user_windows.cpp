#include <uv.h>  // and windows.h, in the order that its sockets need

// After windows.h.
#include <sddl.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/peer_user.h"

namespace tolk::platform {
namespace {

struct CloseHandleOf {
  void operator()(void* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, CloseHandleOf>;

struct FreeLocally {
  void operator()(char* text) const { LocalFree(text); }
};

// 0 if unknown.
DWORD process_at(HANDLE pipe) {
  DWORD flags = 0;
  ULONG process = 0;
  if (GetNamedPipeInfo(pipe, &flags, nullptr, nullptr, nullptr) == 0) return 0;
  const BOOL found = (flags & PIPE_SERVER_END) != 0 ? GetNamedPipeClientProcessId(pipe, &process)
                                                    : GetNamedPipeServerProcessId(pipe, &process);
  return found != 0 ? process : 0;
}

// The SID of a process's user; empty if unknown.
std::string user_of(DWORD process) {
  const OwnedHandle opened(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process));
  HANDLE token = nullptr;
  if (!opened || OpenProcessToken(opened.get(), TOKEN_QUERY, &token) == 0) return {};
  const OwnedHandle owned_token(token);
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> bytes(size);
  if (GetTokenInformation(token, TokenUser, bytes.data(), size, &size) == 0) return {};
  char* text = nullptr;
  const auto* const user = reinterpret_cast<const TOKEN_USER*>(bytes.data());
  if (ConvertSidToStringSidA(user->User.Sid, &text) == 0) return {};
  return std::unique_ptr<char, FreeLocally>(text).get();
}

}  // namespace

// Users have no numbers on Windows, so the rule has nothing to compare.
bool is_trusted_user(unsigned, unsigned) { return true; }

PeerUser peer_user(const uv_pipe_t* pipe) {
  PeerUser peer;
  peer.trusted = true;
  uv_os_fd_t handle = nullptr;
  if (uv_fileno(reinterpret_cast<const uv_handle_t*>(pipe), &handle) != 0) return peer;
  peer.process = process_at(handle);
  if (peer.process != 0) peer.user = user_of(static_cast<DWORD>(peer.process));
  return peer;
}

}  // namespace tolk::platform
