# TOLK_SANITIZE=address,undefined or thread: the whole build, tests included. The first report ends
# the process, so that a test with a report is a test that fails.
if(TOLK_SANITIZE)
  add_compile_options(-fsanitize=${TOLK_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TOLK_SANITIZE})
endif()
