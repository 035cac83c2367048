#include <fcntl.h>
#include <io.h>
#include <windows.h>
// After windows.h, which shellapi.h needs.
#include <shellapi.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/tolk/system/streams.h"
#include "tools/tolk/system/wide_windows.h"

namespace tolk::tool {
namespace {

HANDLE handle_of(int descriptor) { return reinterpret_cast<HANDLE>(_get_osfhandle(descriptor)); }

// The console accepts UTF-16. It would read bytes as text of its code page.
int write_to_console(int descriptor, std::string_view text) {
  const std::wstring all = wide(text);
  std::wstring_view rest = all;
  while (!rest.empty()) {
    constexpr std::size_t kMost = 8192;
    DWORD written = 0;
    if (WriteConsoleW(handle_of(descriptor), rest.data(),
                      static_cast<DWORD>(std::min(rest.size(), kMost)), &written, nullptr) == 0) {
      return EIO;
    }
    rest.remove_prefix(written);
  }
  return 0;
}

}  // namespace

std::wstring wide(std::string_view text) {
  const int size = static_cast<int>(text.size());
  std::wstring result(text.size(), L'\0');  // never more units than bytes
  const int units = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, result.data(), size);
  result.resize(static_cast<std::size_t>(units));
  return result;
}

std::string narrow(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  std::string result(3 * text.size(), '\0');  // never more bytes than that
  const int bytes =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), size, result.data(), 3 * size, nullptr, nullptr);
  result.resize(static_cast<std::size_t>(bytes));
  return result;
}

// The words come from the system: those of `main` are in its code page, and a * in them is
// expanded.
std::vector<std::string> command_line(int, const char* const*) {
  int count = 0;
  LPWSTR* const words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> line;
  for (int i = 1; i < count; ++i) line.push_back(narrow(words[i]));
  LocalFree(words);
  return line;
}

void set_up_streams() {
  for (const int descriptor : {kStdin, kStdout, kStderr}) _setmode(descriptor, _O_BINARY);
}

bool is_terminal(int descriptor) {
  constexpr DWORD kVirtualTerminal = 4;  // ENABLE_VIRTUAL_TERMINAL_PROCESSING
  DWORD mode = 0;
  const HANDLE handle = handle_of(descriptor);
  return GetConsoleMode(handle, &mode) != 0 && SetConsoleMode(handle, mode | kVirtualTerminal) != 0;
}

int columns_of(int descriptor) {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (GetConsoleScreenBufferInfo(handle_of(descriptor), &info) == 0) return 0;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

int write_all(int descriptor, std::string_view bytes) {
  DWORD mode = 0;
  if (GetConsoleMode(handle_of(descriptor), &mode) != 0) return write_to_console(descriptor, bytes);
  while (!bytes.empty()) {
    constexpr std::size_t kMost = 1 << 16;
    const auto size = static_cast<unsigned>(std::min(bytes.size(), kMost));
    const int written = _write(descriptor, bytes.data(), size);
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

// N: child processes do not inherit the file.
FileHandle open_file(const std::string& name, char mode) {
  return FileHandle(_wfopen(wide(name).c_str(), mode == 'w' ? L"wbN" : L"rbN"));
}

// D: it is removed when it is closed. T: it stays in memory if there is room.
FileHandle temporary_file() {
  std::array<wchar_t, MAX_PATH + 1> folder{};
  std::array<wchar_t, MAX_PATH + 1> name{};
  const bool is_named = GetTempPathW(MAX_PATH, folder.data()) != 0 &&
                        GetTempFileNameW(folder.data(), L"tlk", 0, name.data()) != 0;
  return FileHandle(is_named ? _wfopen(name.data(), L"w+bNTD") : nullptr);
}

}  // namespace tolk::tool
