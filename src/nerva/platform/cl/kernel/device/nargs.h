/*
 * Macro argument counting for device programs.
 * NARGS(a, b, c) expands to 3; up to 16 arguments, at least one.
 */
#ifndef NERVA_NARGS_H
#define NERVA_NARGS_H

#define NARGS(...) NARGS_IMPL(__VA_ARGS__, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define NARGS_IMPL(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, N, \
                   ...)                                                                      \
  N

/* Calls NAME##N(args...) where N is the argument count: overloading by arity. */
#define NARGS_CAT_(a, b) a##b
#define NARGS_CAT(a, b) NARGS_CAT_(a, b)
#define NARGS_DISPATCH(NAME, ...) NARGS_CAT(NAME, NARGS(__VA_ARGS__))(__VA_ARGS__)

#endif /* NERVA_NARGS_H */
