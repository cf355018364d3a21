# Warnings of our own code only: a consumer's code is its owner's business.
add_library(vindra_warnings INTERFACE)
target_compile_options(vindra_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(VINDRA_WERROR)
  target_compile_options(vindra_warnings INTERFACE -Werror)
endif()

# What every target that sees our headers needs, consumers included.
#
# A connection's storage is zero before its constructor runs and fields without an
# initialiser keep that zero. g++ takes stores made before construction for dead ones
# and drops them unless it is told otherwise; clang keeps them and has no such switch.
add_library(vindra_usage INTERFACE)
target_compile_features(vindra_usage INTERFACE cxx_std_20)
target_compile_options(vindra_usage INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-lifetime-dse>)
target_include_directories(vindra_usage INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(vindra_usage INTERFACE ${CMAKE_DL_LIBS})
set_target_properties(vindra_usage PROPERTIES EXPORT_NAME usage)

# vindra_layer(NAME SOURCES file... [NEEDS layer...])
#
# One library of objects a folder. It is handed the layers below it and no others; the
# layer check in tests/ sees to the includes, which no linker would object to.
function(vindra_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "SOURCES;NEEDS")
  add_library(vindra_${name} OBJECT ${layer_SOURCES})
  set_target_properties(vindra_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden)
  target_link_libraries(vindra_${name} PUBLIC vindra_usage PRIVATE $<BUILD_INTERFACE:vindra_warnings>)
  foreach(below IN LISTS layer_NEEDS)
    target_link_libraries(vindra_${name} PUBLIC vindra_${below})
  endforeach()
endfunction()
