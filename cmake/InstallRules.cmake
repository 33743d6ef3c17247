# What `cmake --install` puts where:
#
#   include/pmicli          the module's header and the contracts', plus the plug-in header
#   lib                     pmicli and the platform libraries that this build has
#   lib/cmake/pmicli        find_package(pmicli): pmicli::pmicli, pmicli::sysutil, pmicli::storlib,
#                           pmicli::embedded (these three together), pmicli::plugin
#   lib/pkgconfig           pmicli.pc (the module), pmicli-embedded.pc (with the platform libraries)
#   lib                     libstorlib_rados.so, which storlib loads for the engine over a cluster
#   bin                     the pmi program
#
# A static build leaves the linking of private dependencies to the program. The package files of such
# a build therefore name them; those of a shared build name none.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/pmicli)

set(installed_targets contracts pmicli sysutil storlib pmicli_embedded)
if(TARGET pmi_plugin)
    set_target_properties(pmi_plugin PROPERTIES EXPORT_NAME plugin)
    list(APPEND installed_targets pmi_plugin)
    file(GLOB plugin_headers ${PROJECT_SOURCE_DIR}/tools/pmi/plugin/pmi_*.h*)
    install(FILES ${plugin_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmicli)
endif()
install(TARGETS ${installed_targets} EXPORT pmicli-targets)
if(TARGET pmi)
    install(TARGETS pmi)
endif()
if(TARGET storlib_rados)
    install(TARGETS storlib_rados LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmicli FILES_MATCHING PATTERN *.h)
install(FILES server/pmicli.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmicli)

# find_package ------------------------------------------------------------------------------------

install(EXPORT pmicli-targets NAMESPACE pmicli:: DESTINATION ${package_dir})
configure_package_config_file(cmake/pmicliConfig.cmake.in ${PROJECT_BINARY_DIR}/pmicliConfig.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pmicliConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pmicliConfig.cmake ${PROJECT_BINARY_DIR}/pmicliConfigVersion.cmake
    DESTINATION ${package_dir})

# pkg-config --------------------------------------------------------------------------------------

# The installed tree may be moved: a file finds its prefix from where it stands itself.
set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_prefix /${pc_folder} /)
set(pc_libs "")
if(NOT BUILD_SHARED_LIBS)
    set(pc_libs "-lstdc++ -pthread")
endif()
foreach(name pmicli pmicli-embedded)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pc_folder})
endforeach()
