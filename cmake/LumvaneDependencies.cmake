# Every library that we link, found once. scripts/install-dependencies names their Debian packages.
find_package(OpenCV REQUIRED COMPONENTS core imgproc imgcodecs)

# The parts of OpenCV that we use, under one name and as system headers.
add_library(lumvane_opencv INTERFACE)
target_include_directories(lumvane_opencv SYSTEM INTERFACE ${OpenCV_INCLUDE_DIRS})
target_link_libraries(lumvane_opencv INTERFACE opencv_core opencv_imgproc opencv_imgcodecs)

find_library(CFITSIO_LIBRARY cfitsio REQUIRED)
find_path(CFITSIO_INCLUDE_DIR fitsio.h PATH_SUFFIXES cfitsio REQUIRED)
add_library(CFITSIO::cfitsio UNKNOWN IMPORTED)
set_target_properties(CFITSIO::cfitsio PROPERTIES IMPORTED_LOCATION ${CFITSIO_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES
                                                                                       ${CFITSIO_INCLUDE_DIR})

# What CFITSIO itself inflates with; every platform that has it has this.
find_package(ZLIB REQUIRED)

# TCLAP is headers alone. SYSTEM keeps its warnings out of our build.
find_path(TCLAP_INCLUDE_DIR tclap/CmdLine.h REQUIRED)
add_library(lumvane_tclap INTERFACE)
target_include_directories(lumvane_tclap SYSTEM INTERFACE ${TCLAP_INCLUDE_DIR})

# The rest is for our own engine, which has no part in a build that runs networks with Core ML.
if(APPLE)
  return()
endif()

find_package(Protobuf REQUIRED)
find_package(OpenMP REQUIRED COMPONENTS CXX)

# oneDNN's own CMake package asks for OpenCL's development files, which we neither need nor install.
find_library(DNNL_LIBRARY dnnl REQUIRED)
find_path(DNNL_INCLUDE_DIR oneapi/dnnl/dnnl.hpp REQUIRED)
add_library(DNNL::dnnl UNKNOWN IMPORTED)
set_target_properties(DNNL::dnnl PROPERTIES IMPORTED_LOCATION ${DNNL_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES
                                                                              ${DNNL_INCLUDE_DIR})
