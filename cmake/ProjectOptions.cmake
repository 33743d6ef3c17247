# How the project's own code is compiled: warnings for each target that asks for them, sanitizers for
# everything at once.

# __builtin_prefetch for writing becomes prefetchw, which brings the line as the writer's own. What does
# not know the instruction passes over it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    set(pmi_processor_options -mprfchw)
endif()

# pmi_options(TARGET...): what all of the project's own code is compiled with.
function(pmi_options)
    foreach(target IN LISTS ARGN)
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
            # Calls between the libraries go straight to their targets: an object takes some thirty.
            -fno-plt
            # Nobody replaces a function that a library calls itself, so it may be inlined.
            -fno-semantic-interposition
            ${pmi_processor_options})
    endforeach()
endfunction()

# pmi_library(TARGET): a library of ours stays in the process that has loaded it, since its threads do:
# unloading a plug-in that was linked with it is safe.
function(pmi_library target)
    pmi_options(${target})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    if(BUILD_SHARED_LIBS)
        target_link_options(${target} PRIVATE LINKER:-z,nodelete)
    endif()
endfunction()

# A sanitizer works only when every object file, shared library and program has it, plug-ins and
# targets without pmi_options included; hence for the whole directory tree instead of by target.
if(PMI_SANITIZE)
    add_compile_options(-fsanitize=${PMI_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${PMI_SANITIZE})
endif()

# Debug builds check the standard library's own preconditions (indexes, empty containers) as well.
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
