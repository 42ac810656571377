# What every target of this project shares. Consumers inherit the language level and nothing else:
# warnings, and the promise that figures do not depend on the machine that built them, stay private.
function(vellum_target target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -ffp-contract=off)
  if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Wshadow -Wdouble-promotion -Werror)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      target_compile_options(${target} PRIVATE -Wno-sign-conversion)
    endif()
  endif()
endfunction()
