# What `cmake --install` puts where: the program and vindra-check with their manual pages and
# completions, both
# libraries, the headers that a consumer can include, and what CMake and pkg-config need to find
# them.
include(CMakePackageConfigHelpers)

set(vindra_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/vindra")

install(TARGETS vindra)
install(PROGRAMS "${PROJECT_SOURCE_DIR}/packaging/vindra-check" DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES "${PROJECT_SOURCE_DIR}/packaging/vindra.1" "${PROJECT_SOURCE_DIR}/packaging/vindra-check.1"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
set(vindra_completions "${PROJECT_SOURCE_DIR}/packaging/completions")
install(FILES "${vindra_completions}/vindra.bash"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME vindra)
install(FILES "${vindra_completions}/vindra.bash"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME vindra-check)
install(FILES "${vindra_completions}/_vindra"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
install(FILES "${vindra_completions}/vindra.fish"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
install(FILES "${vindra_completions}/vindra.fish"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" RENAME vindra-check.fish)

install(TARGETS vindra_library vindra_shared vindra_usage EXPORT vindraTargets)
install(EXPORT vindraTargets NAMESPACE vindra:: DESTINATION "${vindra_package_dir}")

# Those that are left out, a layer's folder private among them, serve the library's own sources.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/vindra"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        FILES_MATCHING
        PATTERN "*.h"
        PATTERN private EXCLUDE)

# Before 1.0 a new minor version may change what a program was built against.
write_basic_package_version_file(vindraConfigVersion.cmake COMPATIBILITY SameMinorVersion)
configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/vindraConfig.cmake.in" vindraConfig.cmake
  INSTALL_DESTINATION "${vindra_package_dir}"
  NO_SET_AND_CHECK_MACRO)
install(FILES
          "${CMAKE_CURRENT_BINARY_DIR}/vindraConfig.cmake"
          "${CMAKE_CURRENT_BINARY_DIR}/vindraConfigVersion.cmake"
        DESTINATION "${vindra_package_dir}")

# The prefix as seen from the file's own place, since it is chosen when installing.
file(RELATIVE_PATH vindra_pc_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" /prefix)
string(REGEX REPLACE "/$" "" vindra_pc_prefix "${vindra_pc_prefix}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/vindra.pc.in" vindra.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/vindra.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
