#include <windows.h>

#include <algorithm>
#include <array>

#include "tools/tolk/system/folder.h"
#include "tools/tolk/system/wide_windows.h"

namespace tolk::tool {
namespace {

std::error_code error_of(DWORD number) {
  if (number == ERROR_FILE_EXISTS || number == ERROR_ALREADY_EXISTS) {
    return std::make_error_code(std::errc::file_exists);
  }
  return {static_cast<int>(number), std::system_category()};
}

// Whether the name means a file of exactly that name. Others mean devices, streams of a file or
// patterns, or are changed by the system.
bool is_plain(const std::string& name) {
  if (name.find_first_of("<>:\"|?*/\\") != std::string::npos) return false;
  if (name.empty() || name.back() == '.' || name.back() == ' ') return false;
  std::string stem = name.substr(0, name.find('.'));
  stem.resize(stem.find_last_not_of(' ') + 1);
  for (char& letter : stem) {
    if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  }
  static const std::array<std::string, 6> kDevices = {"CON", "PRN",    "AUX",
                                                      "NUL", "CONIN$", "CONOUT$"};
  if (std::find(kDevices.begin(), kDevices.end(), stem) != kDevices.end()) return false;
  // COM1, LPT1 and so on, also with superscript digits.
  return !(stem.size() > 3 && stem.size() < 6 &&
           (stem.starts_with("COM") || stem.starts_with("LPT")));
}

std::wstring file_in(const std::string& path, const std::string& name) {
  return wide(path) + L"\\" + wide(name);
}

std::error_code move_file(const std::wstring& from, const std::wstring& to, DWORD flags) {
  return MoveFileExW(from.c_str(), to.c_str(), flags) != 0 ? std::error_code()
                                                           : error_of(GetLastError());
}

HANDLE handle_of(std::intptr_t number) { return reinterpret_cast<HANDLE>(number); }

}  // namespace

// Without FILE_SHARE_DELETE nobody can rename the directory while it is open.
Folder::Folder(const std::string& path) : path_(path) {
  const HANDLE directory = CreateFileW(wide(path).c_str(), FILE_LIST_DIRECTORY | FILE_ADD_FILE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  handle_ = reinterpret_cast<std::intptr_t>(directory);
  if (directory == INVALID_HANDLE_VALUE) {
    error_ = error_of(GetLastError());
  } else if ((GetFileAttributesW(wide(path).c_str()) & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    error_ = std::make_error_code(std::errc::not_a_directory);
  }
}

Folder::~Folder() {
  if (handle_ != -1) CloseHandle(handle_of(handle_));
}

std::error_code Folder::create(const std::string& name, std::intptr_t& file) const {
  const HANDLE made = CreateFileW(file_in(path_, name).c_str(), GENERIC_WRITE, 0, nullptr,
                                  CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  file = reinterpret_cast<std::intptr_t>(made);
  return made == INVALID_HANDLE_VALUE ? error_of(GetLastError()) : std::error_code();
}

std::error_code Folder::append(std::intptr_t file, std::string_view bytes) {
  while (!bytes.empty()) {
    constexpr std::size_t kMost = std::size_t{1} << 20;
    DWORD written = 0;
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMost));
    if (WriteFile(handle_of(file), bytes.data(), size, &written, nullptr) == 0) {
      return error_of(GetLastError());
    }
    bytes.remove_prefix(written);
  }
  return {};
}

std::error_code Folder::close(std::intptr_t file) {
  return CloseHandle(handle_of(file)) != 0 ? std::error_code() : error_of(GetLastError());
}

std::error_code Folder::rename(const std::string& file, const std::string& name) const {
  if (!is_plain(name)) return std::make_error_code(std::errc::invalid_argument);
  return move_file(file_in(path_, file), file_in(path_, name), 0);
}

std::error_code Folder::replace(const std::string& file, const std::string& name) const {
  if (!is_plain(name)) return std::make_error_code(std::errc::invalid_argument);
  return move_file(file_in(path_, file), file_in(path_, name), MOVEFILE_REPLACE_EXISTING);
}

bool Folder::has(const std::string& name) const {
  return GetFileAttributesW(file_in(path_, name).c_str()) != INVALID_FILE_ATTRIBUTES;
}

void Folder::remove(const std::string& name) const { DeleteFileW(file_in(path_, name).c_str()); }

}  // namespace tolk::tool
