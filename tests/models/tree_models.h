// Search trees that follow the wording of their steps one by one, without a thought for cost: what the
// library's trees are compared with, node by node.
#ifndef QVLIB_TESTS_MODELS_TREE_MODELS_H
#define QVLIB_TESTS_MODELS_TREE_MODELS_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace tree_models
{

struct node {
    uint64_t key = 0;
    void *item = nullptr;
    node *left = nullptr;
    node *right = nullptr;
    uint32_t word = 0;
};

// Nodes live as long as the model, so that steps may leave them lying about.
class model
{
  public:
    node *root = nullptr;

  protected:
    node *make(uint64_t key, void *item)
    {
        node &made = nodes.emplace_back();
        made.key = key;
        made.item = item;
        return &made;
    }

  private:
    std::deque<node> nodes;
};

// ---- The plain tree

class plain : public model
{
  public:
    bool insert(uint64_t key, void *item)
    {
        if (present(key))
            return false;
        insert_below(root, make(key, item));
        return true;
    }

    bool remove(uint64_t key)
    {
        if (!present(key))
            return false;
        unlink(root, key);
        return true;
    }

    bool present(uint64_t key) const
    {
        const node *at = root;
        while (at != nullptr && at->key != key)
            at = key <= at->key ? at->left : at->right;
        return at != nullptr;
    }

  protected:
    static void insert_below(node *&link, node *made)
    {
        if (link == nullptr)
            link = made;
        else if (made->key <= link->key)
            insert_below(link->left, made);
        else
            insert_below(link->right, made);
    }

    // Returns the node that was unlinked.
    static node *unlink(node *&link, uint64_t key)
    {
        if (key < link->key)
            return unlink(link->left, key);
        if (key > link->key)
            return unlink(link->right, key);
        node *const n = link;
        if (n->left == nullptr) {
            link = n->right;
        } else if (n->right == nullptr) {
            link = n->left;
        } else if (n->left->right == nullptr) {
            link = n->left;
            link->right = n->right;
        } else {
            node *holder = n->left;
            while (holder->right->right != nullptr)
                holder = holder->right;
            node *const p = holder->right;
            holder->right = p->left;
            p->left = n->left;
            p->right = n->right;
            link = p;
        }
        return n;
    }
};

// ---- AVL

class avl : public plain
{
  public:
    static constexpr long most_promotions = 1000000;

    bool insert(uint64_t key, void *item)
    {
        promotions = 0;
        if (!plain::insert(key, item))
            return false;
        retrace(&root, key);
        finish();
        return true;
    }

    bool remove(uint64_t key)
    {
        promotions = 0;
        if (!present(key))
            return false;
        const node *removed = unlink(root, key);
        if (removed->right != nullptr)
            retrace(&root, removed->right->key);
        if (removed->left != nullptr)
            retrace(&root, removed->left->key);
        finish();
        return true;
    }

    long promotions = 0; // of the last call; one more than the limit when that was hit

  private:
    static uint32_t height(const node *n)
    {
        return n == nullptr ? 0 : n->word;
    }

    static long update(node *n)
    {
        if (n == nullptr)
            return 0;
        const long left = height(n->left), right = height(n->right);
        n->word = static_cast<uint32_t>(left > right ? left : right) + 1;
        return right - left;
    }

    void fix(node **link, long b)
    {
        if (b >= -1 && b <= 1)
            return;
        if (promotions >= most_promotions) {
            promotions = most_promotions + 1;
            return;
        }
        promotions++;
        node *const n = *link;
        node *q = nullptr;
        if (b < -1) {
            node *parent = nullptr, *p = n->left;
            for (; p->right != nullptr; p = p->right)
                parent = p;
            if (parent != nullptr) {
                parent->right = p->left;
                p->left = n->left;
            }
            p->right = n;
            n->left = nullptr;
            *link = p;
            for (q = p->left; q != nullptr && q->right != nullptr;)
                q = q->right;
        } else {
            node *parent = nullptr, *p = n->right;
            for (; p->left != nullptr; p = p->left)
                parent = p;
            if (parent != nullptr) {
                parent->left = p->right;
                p->right = n->right;
            }
            p->left = n;
            n->right = nullptr;
            *link = p;
            for (q = p->right; q != nullptr && q->left != nullptr;)
                q = q->left;
        }
        if (q != nullptr) {
            update(n);
            retrace(link, q->key);
        }
        refresh(link);
    }

    void refresh(node **link)
    {
        node *const n = *link;
        fix(&n->right, update(n->right));
        fix(&n->left, update(n->left));
        fix(link, update(n));
    }

    void retrace(node **link, uint64_t key)
    {
        node *const n = *link;
        if (key > n->key)
            retrace(&n->right, key);
        else if (key < n->key)
            retrace(&n->left, key);
        fix(link, update(*link));
    }

    void finish()
    {
        if (promotions <= most_promotions)
            return;
        std::vector<node *> sorted;
        collect(root, sorted);
        root = balanced(sorted, 0, sorted.size());
    }

    static void collect(node *n, std::vector<node *> &sorted)
    {
        if (n == nullptr)
            return;
        collect(n->left, sorted);
        sorted.push_back(n);
        collect(n->right, sorted);
    }

    static node *balanced(const std::vector<node *> &sorted, size_t from, size_t to)
    {
        if (from == to)
            return nullptr;
        const size_t middle = from + (to - from) / 2;
        node *const n = sorted[middle];
        n->left = balanced(sorted, from, middle);
        n->right = balanced(sorted, middle + 1, to);
        update(n);
        return n;
    }
};

// ---- Red-black: the steps on an array of the nodes that the descent has passed, real links read afresh each
// time

class red_black : public model
{
  public:
    void insert(uint64_t key, void *item)
    {
        if (root == nullptr) {
            root = make(key, item);
            return;
        }
        node false_root;
        link(&false_root, 1) = root;
        node *great = &false_root, *grand = nullptr, *parent = nullptr, *q = root;
        int dir = 0, last = 0;
        bool stop = false;
        while (!stop) {
            if (q == nullptr) {
                q = make(key, item);
                q->word = 1;
                link(parent, dir) = q;
            } else if (red(link(q, 0)) && red(link(q, 1))) {
                q->word = 1;
                link(q, 0)->word = link(q, 1)->word = 0;
            }
            if (red(q) && red(parent)) {
                const int at = link(great, 1) == grand ? 1 : 0;
                if (link(parent, last) == q)
                    link(great, at) = single_rotation(grand, !last);
                else
                    link(great, at) = double_rotation(grand, !last);
            }
            stop = q->key == key;
            last = dir;
            dir = key > q->key ? 1 : 0;
            great = grand != nullptr ? grand : great;
            grand = parent;
            parent = q;
            q = link(q, dir);
        }
        root = link(&false_root, 1);
        root->word = 0;
    }

    void remove(uint64_t key)
    {
        if (root == nullptr)
            return;
        node false_root;
        link(&false_root, 1) = root;
        node *grand = nullptr, *parent = nullptr, *q = &false_root, *found = nullptr;
        int dir = 1;
        while (link(q, dir) != nullptr) {
            const int last = dir;
            grand = parent;
            parent = q;
            q = link(q, dir);
            dir = key > q->key ? 1 : 0;
            if (q->key == key)
                found = q;
            if (red(q) || red(link(q, dir)))
                continue;
            if (red(link(q, !dir))) {
                node *const raised = single_rotation(q, dir);
                link(parent, last) = raised;
                parent = raised;
                continue;
            }
            node *const s = link(parent, !last);
            if (s == nullptr)
                continue;
            if (!red(link(s, 0)) && !red(link(s, 1))) {
                parent->word = 0;
                s->word = q->word = 1;
                continue;
            }
            const int at = link(grand, 1) == parent ? 1 : 0;
            node *const top =
                red(link(s, last)) ? double_rotation(parent, last) : single_rotation(parent, last);
            link(grand, at) = top;
            q->word = top->word = 1;
            link(top, 0)->word = link(top, 1)->word = 0;
        }
        if (found != nullptr) {
            found->key = q->key;
            found->item = q->item;
            link(parent, link(parent, 1) == q ? 1 : 0) = link(q, link(q, 0) == nullptr ? 1 : 0);
        }
        root = link(&false_root, 1);
        if (root != nullptr)
            root->word = 0;
    }

  private:
    static node *&link(node *n, int dir)
    {
        return dir == 0 ? n->left : n->right;
    }

    static bool red(const node *n)
    {
        return n != nullptr && n->word == 1;
    }

    static node *single_rotation(node *top, int dir)
    {
        node *const s = link(top, !dir);
        link(top, !dir) = link(s, dir);
        link(s, dir) = top;
        top->word = 1;
        s->word = 0;
        return s;
    }

    static node *double_rotation(node *top, int dir)
    {
        link(top, !dir) = single_rotation(link(top, !dir), !dir);
        return single_rotation(top, dir);
    }
};

} // namespace tree_models

#endif
