# What others build against: the names memorywatcher::..., and what `cmake --install` copies.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Programs and libraries find each other wherever the whole is moved.
file(RELATIVE_PATH from_bin_to_lib
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/${from_bin_to_lib}")

# A folder of its own, so that <ka/...>, <host/...> and their like meet nobody else's.
set(kx_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/memorywatcher)
set(kx_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/memorywatcher)

# Everything that is installed, without tests and benchmarks.
add_custom_target(installed)

# kx_install(TARGET [NAME] [SET]): others call the target memorywatcher::NAME, by default its own
# name. SET is Targets or, for what only tests need, TestingTargets.
function(kx_install target)
  cmake_parse_arguments(ARG "" "NAME;SET" "" ${ARGN})
  set(name ${target})
  if(ARG_NAME)
    set(name ${ARG_NAME})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  endif()
  if(NOT ARG_SET)
    set(ARG_SET Targets)
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL EXECUTABLE)
    add_executable(memorywatcher::${name} ALIAS ${target})
  else()
    add_library(memorywatcher::${name} ALIAS ${target})
  endif()
  add_dependencies(installed ${target})
  if(KX_INSTALL)
    install(TARGETS ${target} EXPORT ${ARG_SET} INCLUDES DESTINATION ${kx_include_dir})
  endif()
endfunction()

# kx_public_headers(TARGET): the headers as others include them, below framework/ and from the root.
function(kx_public_headers target)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/framework> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_compile_features(${target} PUBLIC cxx_std_20)
endfunction()

if(NOT KX_INSTALL)
  return()
endif()

install(DIRECTORY framework/ DESTINATION ${kx_include_dir} FILES_MATCHING PATTERN *.hpp)
install(DIRECTORY binding DESTINATION ${kx_include_dir} FILES_MATCHING PATTERN *.hpp)
install(FILES host/bus/kxbusoptions.hpp DESTINATION ${kx_include_dir}/host/bus)
install(FILES host/rttools/kxhost.hpp host/rttools/kxmodulelibrary.hpp
  DESTINATION ${kx_include_dir}/host/rttools)
# Without what looks inside the watcher, whose headers stay here.
install(DIRECTORY tests/support DESTINATION ${kx_include_dir}/tests FILES_MATCHING PATTERN *.hpp
  PATTERN memorywatcherfortest.hpp EXCLUDE)

foreach(set Targets TestingTargets)
  install(EXPORT ${set} NAMESPACE memorywatcher:: FILE memorywatcher${set}.cmake
    DESTINATION ${kx_package_dir})
endforeach()
configure_package_config_file(cmake/memorywatcherConfig.cmake.in memorywatcherConfig.cmake
  INSTALL_DESTINATION ${kx_package_dir} NO_SET_AND_CHECK_MACRO)
# Before 1.0, each minor version may change what others build on.
write_basic_package_version_file(memorywatcherConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/memorywatcherConfig.cmake
  ${PROJECT_BINARY_DIR}/memorywatcherConfigVersion.cmake DESTINATION ${kx_package_dir})

# The same for pkg-config. kx_pkgconfig(NAME DESCRIPTION LIBS REQUIRES)
set(kx_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_PREFIX}/${kx_pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
function(kx_pkgconfig name description libs requires)
  configure_file(cmake/pkgconfig.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${kx_pkgconfig_dir})
endfunction()
kx_pkgconfig(memorywatcher "modules for a host, and calls to them"
  "-lkxproxies -lkxcommon -lkxvalue -lkxthread -lkxerror -lka" "")
kx_pkgconfig(memorywatcher-host "a host in a program of one's own" "-lrttools" memorywatcher)
kx_pkgconfig(memorywatcher-testing "what modules are tested with" "-lkxtesting" memorywatcher-host)
