// The system's and the standard library's headers, as mingw-w64 has them, read once; what follows
// sees none of the names by which code recognises GNU's compiler and library, and those of MSVC's.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <concepts>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <iterator>
#include <limits>
#include <list>
#include <locale>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <ostream>
#include <random>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

// Before windows.h: the new sockets cannot follow the old ones.
#include <uv.h>
//
#include <windows.h>

#undef __GNUC__
#undef __GNUG__
#undef __clang__
#undef __GLIBCXX__
#undef __MINGW32__
#undef __MINGW64__
#define _MSC_VER 1933
#define _MSVC_LANG 202002L
