# The language, the warnings, the sanitizers and the compiler cache of everything that is built.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CCACHE ccache)
if(CCACHE)
    # the sloppiness lets it work with precompiled headers, and in any locale
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros,locale ${CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wvla
    # a text from outside is never a format; tools/check_log_formats looks at the log's own
    -Wformat=2 -Werror=format-security
    # no machine's path in the product, and the same objects from any checkout
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
if(NOT CMAKE_UNITY_BUILD) # where several sources are one, a warning may be about that alone
    add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # at -O3 g++ 12 takes the copying within std::string for an overlap that cannot be
    add_compile_options(-Wno-restrict)
    if(CMAKE_UNITY_BUILD) # it takes a source's own names for a header's
        add_compile_options(-Wno-subobject-linkage)
    endif()
endif()
add_compile_definitions(_GNU_SOURCE)
if(ZENBRAK3_SANITIZE)
    add_compile_options(-fsanitize=${ZENBRAK3_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=${ZENBRAK3_SANITIZE})
    add_compile_definitions(ZENBRAK3_SANITIZED)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        # the sanitizers' own code trips these
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
endif()
