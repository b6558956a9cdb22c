/*
 * Compile-time assertion for device code, usable at file and block scope:
 * STATIC_ASSERT(VEC_SIZE <= 16, vec_size_too_large) fails to compile with an
 * error naming "static_assert_vec_size_too_large" when the condition is false.
 */
#ifndef NERVA_STATIC_ASSERT_H
#define NERVA_STATIC_ASSERT_H

#define STATIC_ASSERT(cond, msg) typedef char static_assert_##msg[(cond) ? 1 : -1]

#endif /* NERVA_STATIC_ASSERT_H */
