// What the thread sanitizer says of descriptors and exceptions and is not so.
//
// libuv closes its descriptors by a bare system call, which the thread sanitizer does not see. When
// a number comes back, it takes what the system's own functions do to the new descriptor for a race
// with what they did to the old one. The reports name these functions as the writer.
//
// An exception that a promise and its future share is freed by the last one. The count of its
// owners is in the standard library, which is not built with the sanitizer.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:^__interceptor_epoll_create1$\n"
         "race:^__interceptor_eventfd$\n"
         "race:^__interceptor_pipe2$\n"
         "race:^__interceptor_socket$\n"
         "race:^__interceptor_accept4$\n"
         "race:^epoll_create1$\n"
         "race:^eventfd$\n"
         "race:^pipe2$\n"
         "race:^socket$\n"
         "race:^accept4$\n"
         "race:^__interceptor_closedir$\n"
         "race:^closedir$\n"
         "race:^open$\n"
         "race:^std::__exception_ptr::exception_ptr::_M_release";
}
#endif
#endif
