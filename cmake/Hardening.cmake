# What a build of another kind adds to every target: the fuzzers' eyes or the sanitizers.
function(kavophoto_instrument target)
  if(KAVOPHOTO_FUZZ)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(KAVOPHOTO_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  endif()
endfunction()

# Each program of a build adds its counts to one of a few files of its own, also when many run at once.
function(kavophoto_count target)
  target_compile_options(${target} PRIVATE -O0 -fcoverage-mapping
                                           -fprofile-instr-generate=${CMAKE_BINARY_DIR}/counts/%4m.profraw)
  target_link_options(${target} PUBLIC -fprofile-instr-generate)
endfunction()

function(kavophoto_hardening target)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -fstack-protector-strong)
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
  kavophoto_instrument(${target})
  if(KAVOPHOTO_COVERAGE)
    kavophoto_count(${target})
  endif()
  # The fortified calls need optimisation, and the sanitizers replace the same calls.
  if(NOT KAVOPHOTO_SANITIZE AND NOT KAVOPHOTO_COVERAGE)
    target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                             $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
endfunction()

# Tests wait for the tool and the server, not for their own code: what they need is a short build.
function(kavophoto_test_code target)
  kavophoto_warnings(${target})
  kavophoto_instrument(${target})
  target_compile_options(${target} PRIVATE -O0 -g1)
endfunction()
