# What every target of the project is built with.
add_library(project_flags INTERFACE)
target_include_directories(project_flags INTERFACE ${PROJECT_SOURCE_DIR}/include)
target_compile_options(project_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                       -Woverloaded-virtual)
# GCC 12 sees overlapping copies in std::string::assign of a literal at -O3 (its bug 105651).
target_compile_options(project_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_compile_definitions(project_flags INTERFACE OPENSSL_API_COMPAT=30000)
if(CERTMGR_WERROR)
  target_compile_options(project_flags INTERFACE -Werror)
endif()
if(CERTMGR_SANITIZE)
  target_compile_options(project_flags INTERFACE -fsanitize=${CERTMGR_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all
                         # GCC 12 sees std::optional members of temporaries as uninitialised under sanitizers.
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(project_flags INTERFACE -fsanitize=${CERTMGR_SANITIZE})
else()
  target_compile_options(project_flags INTERFACE -fstack-protector-strong -D_GLIBCXX_ASSERTIONS)
  target_link_options(project_flags INTERFACE -Wl,-z,relro,-z,now)
endif()
if(CERTMGR_COVERAGE)
  target_compile_options(project_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(project_flags INTERFACE --coverage)
endif()
target_link_libraries(project_flags INTERFACE Threads::Threads)

# An object library of all sources in a folder: certmgr_object_library(name folder [libraries...])
function(certmgr_object_library name folder)
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  if(NOT sources)
    set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(${name} OBJECT ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC project_flags ${ARGN})
endfunction()
