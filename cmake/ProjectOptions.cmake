# pmi_options(TARGET...): the warnings and sanitizers that all of the project's own code is built with.
function(pmi_options)
    foreach(target IN LISTS ARGN)
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
        if(PMI_SANITIZE)
            target_compile_options(${target} PRIVATE
                -fsanitize=${PMI_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
            target_link_options(${target} PRIVATE -fsanitize=${PMI_SANITIZE})
        endif()
    endforeach()
endfunction()
