# What `cmake --install` puts under the prefix: the library with its soname links, the headers,
# a CMake package (find_package(jitreader) gives jitreader::jitreader) and jitreader.pc; the
# tools add themselves in tools/.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

add_library(jitreader::jitreader ALIAS jitreader)
install(TARGETS jitreader EXPORT jitreaderTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(JITREADER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/jitreader)
install(EXPORT jitreaderTargets NAMESPACE jitreader:: DESTINATION ${JITREADER_CMAKE_DIR})
configure_package_config_file(cmake/jitreaderConfig.cmake.in ${PROJECT_BINARY_DIR}/jitreaderConfig.cmake
  INSTALL_DESTINATION ${JITREADER_CMAKE_DIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/jitreaderConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/jitreaderConfig.cmake ${PROJECT_BINARY_DIR}/jitreaderConfigVersion.cmake
  DESTINATION ${JITREADER_CMAKE_DIR})

# pkg-config has no Boost to require; a consumer needs its headers on the include path.
set(JITREADER_PC_BOOST_CFLAGS "")
foreach(dir ${Boost_INCLUDE_DIRS})
  if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
    string(APPEND JITREADER_PC_BOOST_CFLAGS " -I${dir}")
  endif()
endforeach()
file(RELATIVE_PATH JITREADER_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" JITREADER_PC_TO_PREFIX "${JITREADER_PC_TO_PREFIX}")
configure_file(cmake/jitreader.pc.in ${PROJECT_BINARY_DIR}/jitreader.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/jitreader.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
