# Compiler settings that every target of ours shares.

set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG -g1")
set(CMAKE_C_FLAGS_RELEASE "-Os -DNDEBUG -g1")
set(CMAKE_CXX_FLAGS_DEBUG "-g1") # enough for the sanitizers' reports, and half the build time
set(CMAKE_C_FLAGS_DEBUG "-g1")

find_package(Threads REQUIRED)

add_library(ptzd_options INTERFACE)
target_compile_options(ptzd_options INTERFACE
    -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Wmissing-declarations -Wimplicit-fallthrough
    $<$<BOOL:${PTZD_WERROR}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
target_link_libraries(ptzd_options INTERFACE Threads::Threads)

# What runs on a camera, or in its place: nothing in it may need the C++ runtime library.
add_library(ptzd_no_runtime INTERFACE)
target_link_libraries(ptzd_no_runtime INTERFACE ptzd_options)
target_compile_options(ptzd_no_runtime INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
if(NOT PTZD_SANITIZE)
    # The C++ library's own checks, which many toolchains switch on, report through its runtime library. That of GCC can
    # only be left out, that of LLVM ends the program itself instead.
    set(checks -U_GLIBCXX_ASSERTIONS -D_GLIBCXX_NO_ASSERTIONS "-D_LIBCPP_VERBOSE_ABORT(...)=__builtin_abort()")
    target_compile_options(ptzd_no_runtime INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${checks}>")
endif()

# A target linked by the C driver would get the C++ runtime library from here.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
set(CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "")

# Links TARGET with the C compiler driver, so that a use of the C++ runtime library fails to link. Not with a sanitizer:
# that needs the runtime library itself, and an instrumented library takes its symbols from the program.
function(ptzd_link_without_runtime TARGET)
    target_link_libraries(${TARGET} PRIVATE ptzd_no_runtime)
    if(NOT PTZD_SANITIZE)
        set_target_properties(${TARGET} PROPERTIES LINKER_LANGUAGE C)
        target_link_options(${TARGET} PRIVATE -Wl,-z,defs)
    endif()
endfunction()

if(PTZD_SANITIZE)
    add_compile_options(-fsanitize=${PTZD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
    add_link_options(-fsanitize=${PTZD_SANITIZE})
endif()
