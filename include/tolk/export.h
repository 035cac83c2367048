/// @file
/// Visibility of what the library exports.
/// A host that links the static library or the objects defines TOLK_STATIC.
#pragma once

/// @def TOLK_API
/// What the library exports.
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
