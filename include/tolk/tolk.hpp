/// @file
/// The C++ layer: servers, clients and calls with C++ types. It needs C++20 and consists of headers
/// over the C interface. It prints nothing.
///
/// @code
/// tolk::Server server;
/// server.on("add", [](int a, int b) { return a + b; });
/// server.listen(tolk::pipe{5000});
///
/// tolk::Client client = tolk::connect("pipe:5000");
/// int sum = client.call<int>("add", 2, 3, 500ms).value();
/// @endcode
///
/// A peer may use any interface of the library. docs/wire.md describes what the layer adds to
/// messages.
#pragma once

#if defined(__cplusplus) && __cplusplus < 202002L && (!defined(_MSVC_LANG) || _MSVC_LANG < 202002L)
// Nothing follows the #error, so that it is the only message of the compiler.
#error "tolk.hpp needs C++20 (-std=c++20); tolk.h does with C++17"
#else

#include <tolk/layer/client.hpp>
#include <tolk/layer/server.hpp>

#endif
