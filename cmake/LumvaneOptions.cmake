# Compiler flags live on one interface target, so that every target of ours is built with the same ones
# and no third-party header is held to our warnings.
option(LUMVANE_WERROR "Treat warnings as errors" OFF)
set(LUMVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, empty for none")
set_property(CACHE LUMVANE_SANITIZE PROPERTY STRINGS "" "address,undefined")

set(LUMVANE_WARNINGS
    -Wall
    -Wextra
    -Wpedantic
    -Wshadow
    -Wnon-virtual-dtor
    -Wold-style-cast
    -Woverloaded-virtual)
if(LUMVANE_WERROR)
  list(APPEND LUMVANE_WARNINGS -Werror)
endif()

add_library(lumvane_options INTERFACE)
target_compile_features(lumvane_options INTERFACE cxx_std_20)
target_compile_options(
  lumvane_options
  INTERFACE
    ${LUMVANE_WARNINGS}
    # GCC 12 reports overlapping copies in plain std::string concatenation when it optimizes fully (its bug 105651).
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
    # Assertion texts name source files; they must read "src/..." on every machine.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    # Contracted multiply-adds would make results depend on the compiler's mood; kernels that want FMA ask for it.
    -ffp-contract=off)

if(LUMVANE_SANITIZE)
  target_compile_options(lumvane_options INTERFACE -fsanitize=${LUMVANE_SANITIZE} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer)
  target_link_options(lumvane_options INTERFACE -fsanitize=${LUMVANE_SANITIZE})
endif()

# asserts_name(<sources>): files whose failing assertions name them, for people to read. A compiler cache may have turned
# their paths into ones relative to the build folder, and the name shall read "src/..." then, too.
function(asserts_name)
  file(RELATIVE_PATH sources ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR}/src)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -fmacro-prefix-map=${sources}/=src/)
endfunction()
