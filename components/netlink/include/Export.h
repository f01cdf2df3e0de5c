#pragma once

// Marks what the library exports; everything else stays hidden in it.
#define NETLINK_ROUTE_API __attribute__((visibility("default")))

// Takes a private member of an exported class out again.
#define NETLINK_ROUTE_LOCAL __attribute__((visibility("hidden")))

// What clang's analysis of thread safety checks (-Wthread-safety); nothing to other compilers.
#ifdef __clang__
#define NETLINK_ROUTE_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define NETLINK_ROUTE_THREAD_SAFETY(attribute)
#endif
