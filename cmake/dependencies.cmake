# The libraries of tools/packages.txt as targets.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS regex)
find_package(OpenSSL 3 REQUIRED)
find_package(SQLiteCpp 3 REQUIRED)
find_package(CLI11 2 REQUIRED)
find_package(absl REQUIRED)
foreach(module IN ITEMS ACE=ACE ACEXML=ACEXML_Parser YAJL=yajl CURL=libcurl ZSTD=libzstd
        ARCHIVE=libarchive FUSE=fuse3 UUID=uuid LZO=lzo2 XXHASH=libxxhash
        SQLITE=sqlite3 TOMLPLUSPLUS=tomlplusplus SYSTEMD=libsystemd)
    string(REPLACE "=" ";" pair ${module})
    list(GET pair 0 prefix)
    list(GET pair 1 name)
    pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${name})
endforeach()
