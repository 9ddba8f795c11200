// What libstdc++.so writes into a new node of a tree or a list, told to MemorySanitizer: code that was
// compiled without it tells nothing.
#include <list>
#include <sanitizer/msan_interface.h>
#include <set>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker makes these names.
extern "C" {
using TreeNode = std::_Rb_tree_node_base;
using ListNode = std::__detail::_List_node_base;

void __real__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(bool, TreeNode*, TreeNode*,
                                                                              TreeNode&);
void __real__ZNSt8__detail15_List_node_base7_M_hookEPS0_(ListNode*, ListNode*);

void __wrap__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(bool left, TreeNode* node,
                                                                              TreeNode* parent,
                                                                              TreeNode& header)
{
    __real__ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_(left, node, parent, header);
    __msan_unpoison(node, sizeof *node);
}

void __wrap__ZNSt8__detail15_List_node_base7_M_hookEPS0_(ListNode* node, ListNode* position)
{
    __real__ZNSt8__detail15_List_node_base7_M_hookEPS0_(node, position);
    __msan_unpoison(node, sizeof *node);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
