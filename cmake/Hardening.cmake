function(kavophoto_hardening target)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -fstack-protector-strong)
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
  if(KAVOPHOTO_FUZZ)
    # Lets the fuzzers see which paths an input takes.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(KAVOPHOTO_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  elseif(KAVOPHOTO_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -O0 -fprofile-update=atomic)
    target_link_options(${target} PUBLIC --coverage)
  else()
    # The fortified calls need optimisation, and the sanitizers replace the same calls.
    target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                             $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
endfunction()
