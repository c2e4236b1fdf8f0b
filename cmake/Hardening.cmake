# What a build of another kind adds to every target: the fuzzers' eyes, the sanitizers or the coverage counters.
function(kavophoto_instrument target)
  if(KAVOPHOTO_FUZZ)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(KAVOPHOTO_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  elseif(KAVOPHOTO_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -O0 -fprofile-update=atomic)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()

function(kavophoto_hardening target)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -fstack-protector-strong)
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
  kavophoto_instrument(${target})
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
