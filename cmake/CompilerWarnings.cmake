# Warning flags for every target of this project (not for the host's headers, which
# are included as system headers through their imported targets).
add_library(cv_warnings INTERFACE)
target_compile_options(
  cv_warnings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wnon-virtual-dtor
            -Wcast-align
            -Wunused
            -Woverloaded-virtual
            -Wnull-dereference
            -Wformat=2
            -Wimplicit-fallthrough
            $<$<BOOL:${CV_WERROR}>:-Werror>)

if(CV_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

option(CV_TSAN "Build with ThreadSanitizer" OFF)
if(CV_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
