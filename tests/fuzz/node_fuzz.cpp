// A node's JSON, and what shows it.
#include "fuzz.h"
#include "kxamazon/acd_fs_node.h"

FUZZ_TARGET
{
    const node_ptr node(parse_node(kxtest::fuzz_text(data, size).c_str()));
    if (node)
        kxtest::fuzz_check(*acd_node_to_short_string(node.get()) == '{', "a node has a short form");
    return 0;
}
