/// \file
/// Symbol visibility for the quelworks shared library.
///
/// Building the library defines QUELWORKS_BUILDING; users of the DLL get dllimport. On ELF
/// platforms the library is compiled with hidden visibility and only QUELWORKS_API names are
/// exported. Defining QUELWORKS_STATIC (for code that links the library's objects directly, such
/// as the unit tests' fake platform backend) turns the macro into nothing.
#ifndef QUELWORKS_EXPORT_H
#define QUELWORKS_EXPORT_H

#if defined(QUELWORKS_STATIC)
#define QUELWORKS_API
#elif defined(_WIN32) || defined(__CYGWIN__)
#if defined(QUELWORKS_BUILDING)
#define QUELWORKS_API __declspec(dllexport)
#else
#define QUELWORKS_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define QUELWORKS_API __attribute__((visibility("default")))
#else
/// Marks a name exported from the shared library (dllexport/dllimport on Windows).
#define QUELWORKS_API
#endif

// Explicit template instantiations are declared `extern` in headers (so users do not instantiate
// them again) and defined once inside the library. The export attribute goes on the declaration,
// which the definition in the library's source inherits (GCC ignores it on the definition).
/// Declares an explicit instantiation that the library provides.
#define QUELWORKS_EXTERN_TEMPLATE extern template class QUELWORKS_API
/// Defines an explicit instantiation inside the library.
#define QUELWORKS_TEMPLATE template class

#endif  // QUELWORKS_EXPORT_H
