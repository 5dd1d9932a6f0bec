// Reference counts for the malloc'ed blocks that member-wise copies of links share (the port
// name of RS232, the queued messages of RS232Async). Copies keep the same pointers, as the
// interface promises, yet a block is freed exactly once: when its last holder lets go.
#ifndef QUELWORKS_SERIAL_SHARED_BLOCKS_H
#define QUELWORKS_SERIAL_SHARED_BLOCKS_H

namespace quelworks::detail {

// Starts counting a block just allocated with malloc/calloc (one holder). Null is ignored.
void adoptBlock(void* block);
// One more holder of an adopted block. Null and unknown blocks are ignored.
void retainBlock(void* block);
// One holder fewer; the block is freed when none is left. Null and unknown blocks are ignored.
void releaseBlock(void* block);

}  // namespace quelworks::detail

#endif  // QUELWORKS_SERIAL_SHARED_BLOCKS_H
