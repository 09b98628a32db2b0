# Where everything is installed, on top of GNUInstallDirs.
#
# A directory another package owns (systemd's unit, sysusers.d and tmpfiles.d
# directories, bash-completion's) is taken from that package's pkg-config
# file when installing into /usr, the prefix those files describe. Under any
# other prefix (/usr/local, /opt/..., a home directory) it is the same
# directory beneath the prefix, so that a local install never writes into
# /usr or /lib behind the user's back; systemd also reads units from
# /usr/local/lib/systemd/system, sysusers.d and tmpfiles.d entries from
# /usr/local/lib/..., and bash-completion completions from every data
# directory. Each is a cache entry a packager may set.
#
# The configuration directories are another matter: the helper reads them at
# the sysconfdir it was built with, so they are installed exactly there.
# GNUInstallDirs' default, "etc", means /etc whatever the prefix (a helper in
# /usr/local/sbin reading /usr/local/etc/krx would surprise everyone); an
# explicit CMAKE_INSTALL_SYSCONFDIR is taken as given (made absolute under the
# prefix when relative).
include_guard(GLOBAL)
include(GNUInstallDirs)
find_package(PkgConfig QUIET)

# vtl_package_directory(VAR PACKAGE VARIABLE FALLBACK DOC): VAR as set in the
# cache, or when left empty, PACKAGE's pkg-config VARIABLE when the prefix is
# /usr and PACKAGE says, else FALLBACK (worked out at every configure, so that
# a changed prefix moves it too).
function(vtl_package_directory var package variable fallback doc)
  set(${var} "" CACHE PATH "${doc} (empty: the default for the prefix)")
  if(NOT "${${var}}" STREQUAL "")
    return()
  endif()
  set(value "${fallback}")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND PKG_CONFIG_FOUND)
    pkg_get_variable(from_package ${package} ${variable})
    if(from_package)
      set(value "${from_package}")
    endif()
  endif()
  set(${var} "${value}" PARENT_SCOPE)
endfunction()

vtl_package_directory(VTL_SYSTEMD_UNIT_DIR systemd systemdsystemunitdir
                      "${CMAKE_INSTALL_PREFIX}/lib/systemd/system" "Where the systemd units go")
vtl_package_directory(VTL_SYSUSERS_DIR systemd sysusersdir
                      "${CMAKE_INSTALL_PREFIX}/lib/sysusers.d" "Where the sysusers.d entry goes")
vtl_package_directory(VTL_TMPFILES_DIR systemd tmpfilesdir
                      "${CMAKE_INSTALL_PREFIX}/lib/tmpfiles.d" "Where the tmpfiles.d entry goes")
vtl_package_directory(
  VTL_BASH_COMPLETION_DIR bash-completion completionsdir
  "${CMAKE_INSTALL_FULL_DATADIR}/bash-completion/completions" "Where the bash completion goes")

if(CMAKE_INSTALL_SYSCONFDIR STREQUAL "etc")
  set(VTL_SYSCONFDIR "/etc")
else()
  set(VTL_SYSCONFDIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}")
endif()
# The helper finds its configuration as a device root's etc/ (the same code
# reads a simulated device's DIR/etc), so the directory must be called etc;
# the root it hangs from goes to the helper through vtl_paths.h.
get_filename_component(vtl_sysconfdir_name "${VTL_SYSCONFDIR}" NAME)
if(NOT vtl_sysconfdir_name STREQUAL "etc")
  message(FATAL_ERROR "CMAKE_INSTALL_SYSCONFDIR (${VTL_SYSCONFDIR}) must be a directory named "
                      "etc: vtld_helper reads krx/ and vtld/ beneath it as it does under a "
                      "device's etc/")
endif()
get_filename_component(VTL_CONFIGURATION_ROOT "${VTL_SYSCONFDIR}" DIRECTORY)
if(VTL_CONFIGURATION_ROOT STREQUAL "")
  set(VTL_CONFIGURATION_ROOT "/")
endif()
