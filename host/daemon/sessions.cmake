pkg_check_modules(LIBCRYPTO REQUIRED IMPORTED_TARGET libcrypto)

vexa_library(vexa_sessions
  SOURCES login_limiter.cpp session_file.cpp session_token.cpp sessions.cpp
  LINK vexa_base PkgConfig::LIBCRYPTO Threads::Threads)
