#pragma once

/// Marks a class or function that is used outside the library that defines it. Everything else stays hidden, so
/// that a library's exported names are its interface. Types that cross libraries need it too: their type
/// information must be one object in the process for casts and exceptions to work.
#define HX_API __attribute__((visibility("default")))
