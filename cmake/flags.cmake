# One interface target carries the warnings, the hardening and the sanitizers
# that every target of this project is built with.
add_library(korvato_flags INTERFACE)
target_include_directories(korvato_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(korvato_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The annotations in knihovny/mutex.h are checked by clang only.
  target_compile_options(korvato_flags INTERFACE -Wthread-safety)
endif()
if(KORVATO_WERROR)
  target_compile_options(korvato_flags INTERFACE -Werror)
endif()

if(KORVATO_COVERAGE)
  target_compile_options(korvato_flags INTERFACE --coverage -fprofile-update=atomic)
  target_compile_definitions(korvato_flags INTERFACE KORVATO_COVERAGE)
  target_link_options(korvato_flags INTERFACE --coverage)
endif()

if(KORVATO_SANITIZE)
  target_compile_options(korvato_flags INTERFACE -fsanitize=${KORVATO_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
  target_link_options(korvato_flags INTERFACE -fsanitize=${KORVATO_SANITIZE})
  if(KORVATO_SANITIZE MATCHES "undefined")
    # This check opens a pipe for itself, so it reports falsely where a test leaves no descriptors.
    target_compile_options(korvato_flags INTERFACE -fno-sanitize=vptr)
  endif()
else()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  target_compile_options(korvato_flags INTERFACE -fstack-protector-strong -fstack-clash-protection)
  target_compile_options(korvato_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
  target_link_options(korvato_flags INTERFACE -pie -Wl,-z,relro,-z,now)
endif()
