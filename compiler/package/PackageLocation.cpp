/* Compiled into every program that is built against the installed package,
 * never into the package's own libraries: the CMake configuration adds it to
 * the sources of whatever links Quor::services, and the pkg-config file passes
 * it to the compiler with -include. It lies beside the installed standard
 * library, so the path the compiler gives it, __FILE__, tells the installed
 * services where that library is, wherever the prefix has been moved.
 *
 * C as well as C++, since -include reaches every file compiled with the
 * pkg-config flags. The definition is weak because each such file carries one;
 * the linker keeps a single copy. */

#ifdef __cplusplus
extern "C" {
#endif

const char* quor_package_location_file(void);

__attribute__((weak, used)) const char* quor_package_location_file(void) {
    return __FILE__;
}

#ifdef __cplusplus
}
#endif
