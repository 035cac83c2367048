/// @file
/// Visibility of the exported names.
/// A host that links the static library or its object files must define TOLK_STATIC.
#pragma once

/// @def TOLK_API
/// Marks an exported class or function.
#if defined(TOLK_STATIC)
#define TOLK_API
#elif defined(_WIN32)
#if defined(TOLK_BUILDING)
#define TOLK_API __declspec(dllexport)
#else
#define TOLK_API __declspec(dllimport)
#endif
#else
#define TOLK_API __attribute__((visibility("default")))
#endif
