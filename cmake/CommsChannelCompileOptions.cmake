# Warnings and sanitizers shared by every target of the project.
set(_cc_sanitizer_flags "")
if(COMMSCHANNEL_SANITIZER STREQUAL "address,undefined")
    set(_cc_sanitizer_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(COMMSCHANNEL_SANITIZER STREQUAL "thread")
    set(_cc_sanitizer_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT COMMSCHANNEL_SANITIZER STREQUAL "none")
    message(FATAL_ERROR "COMMSCHANNEL_SANITIZER must be none, address,undefined or thread")
endif()
# 64-bit file offsets and inode numbers on 32-bit targets too: without them
# readdir() and stat() fail with EOVERFLOW on file systems with large inode
# numbers, as the host's are under qemu-mips. No public interface uses off_t.
add_compile_definitions(_FILE_OFFSET_BITS=64)

# For the libFuzzer targets, everything is built with the fuzzer's coverage
# instrumentation, so that the fuzzer sees which paths of the libraries and
# the resolver an input reached. The fuzz targets add the fuzzer runtime.
if(COMMSCHANNEL_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "COMMSCHANNEL_BUILD_FUZZERS needs clang (libFuzzer)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Sanitizers apply to everything built here, GoogleTest included, so that
# the runtime sees every access.
if(_cc_sanitizer_flags)
    add_compile_options(${_cc_sanitizer_flags})
    add_link_options(${_cc_sanitizer_flags})
endif()

function(commschannel_apply_options target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    # Nothing replaces the libraries' own functions at load time, so calls
    # inside one library may be bound, and inlined, when it is built.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    endif()
    if(COMMSCHANNEL_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    find_package(Threads REQUIRED)
    target_link_libraries(${target} PRIVATE Threads::Threads)
endfunction()
