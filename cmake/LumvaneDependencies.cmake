# Every library that we link, found once. Debian packages all of them; scripts/install-dependencies names the packages.
find_package(PkgConfig REQUIRED)
find_package(OpenCV REQUIRED COMPONENTS core imgproc imgcodecs)
find_package(Protobuf REQUIRED)
find_package(OpenMP REQUIRED COMPONENTS CXX)
pkg_check_modules(CFITSIO REQUIRED IMPORTED_TARGET cfitsio)
find_library(DNNL_LIBRARY dnnl REQUIRED)
find_path(DNNL_INCLUDE_DIR oneapi/dnnl/dnnl.hpp REQUIRED)
find_path(TCLAP_INCLUDE_DIR tclap/CmdLine.h REQUIRED)

# TCLAP is headers alone. SYSTEM keeps its warnings out of our build.
add_library(lumvane_tclap INTERFACE)
target_include_directories(lumvane_tclap SYSTEM INTERFACE ${TCLAP_INCLUDE_DIR})

# The parts of OpenCV that we use, under one name and as system headers.
add_library(lumvane_opencv INTERFACE)
target_include_directories(lumvane_opencv SYSTEM INTERFACE ${OpenCV_INCLUDE_DIRS})
target_link_libraries(lumvane_opencv INTERFACE opencv_core opencv_imgproc opencv_imgcodecs)

# oneDNN's own CMake package asks for OpenCL's development files, which we neither need nor install.
add_library(DNNL::dnnl UNKNOWN IMPORTED)
set_target_properties(DNNL::dnnl PROPERTIES IMPORTED_LOCATION ${DNNL_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES
                                                                              ${DNNL_INCLUDE_DIR})
