// <Block.h>: copying and releasing blocks from C.
// https://developer.apple.com/documentation/kernel/1426993-block_copy (Block_copy)
// https://clang.llvm.org/docs/Block-ABI-Apple.html

#pragma once

#ifdef __cplusplus
extern "C" {
#endif
void *_Block_copy(const void *aBlock);
void _Block_release(const void *aBlock);
#ifdef __cplusplus
}
#endif

#define Block_copy(...) ((__typeof(__VA_ARGS__))_Block_copy((const void *)(__VA_ARGS__)))
#define Block_release(...) _Block_release((const void *)(__VA_ARGS__))
