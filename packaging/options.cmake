# What the packages' builds set besides; included before anything is looked for or built.
option(GUARDIAN_PORTABLE "Link everything in, the C library too" OFF)
option(GUARDIAN_OWN_RUNTIME "Link the C++ library and the compiler's into the Guardian" OFF)
option(GUARDIAN_REPRODUCIBLE "Let no folder of this machine into the output" OFF)
option(GUARDIAN_HARDENED "Make what attacks the memory harder, as Debian does for its services" OFF)

if(GUARDIAN_PORTABLE)
  set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
  # At another address in each run, all the same; Debian 12's C library knows no such thing for arm.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    add_link_options(-static)
  else()
    add_link_options(-static-pie)
  endif()
  # A sixth of it is code that nothing calls, which would still be in memory with what stands beside it.
  add_link_options(LINKER:--gc-sections)
endif()
if(GUARDIAN_REPRODUCIBLE)
  add_compile_options(-ffile-prefix-map=${PROJECT_BINARY_DIR}=build
                      -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
endif()

# What dpkg-buildflags says with hardening=+all, beside what Debian's g++ does by itself; it needs the
# optimiser.
if(GUARDIAN_HARDENED)
  add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security -Wdate-time)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(LINKER:-z,relro,-z,now)
endif()

# Dates beyond 2038 and files beyond 2 GiB also where the processor counts in 32 bits.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
  # Objects of a g++ before 7.1 are never linked.
  add_compile_options(-Wno-psabi)
endif()
# So that the stack of a fatal signal goes on behind functions that raise nothing.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  add_compile_options(-funwind-tables)
endif()
