# External dependencies, all from Debian 12 packages (scripts/setup.sh installs them).
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Util Net)
find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(LIBAUDIT REQUIRED IMPORTED_TARGET audit)
