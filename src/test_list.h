/* The tests of a checker: a list of definitions that owns them.
 *
 *     using load_list = test_list<load_av_def, &load_av_def::test_id, &load_av_def::host>;
 *     static constinit load_list load_av_list GUARDED_BY(LDA_MON_MUTEX);
 *
 * names the member that holds the id and the texts that a definition owns. A definition is filled
 * once, with texts that may belong to anybody, and the list makes the copy that it keeps: of all
 * texts, or of nothing when memory runs out, which leaves the list as it was. Definitions that own
 * more than texts, or are made some other way, specialise test_ownership.
 *
 * No locks are taken: whoever calls holds the mutex of the list. Nothing is freed when the program
 * ends; the object is constant-initialised and needs no destruction. */
#ifndef VINDRAL_TEST_LIST_H
#define VINDRAL_TEST_LIST_H

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

/* Pointers in the order in which they were appended. It does not own what they point to. */
template <typename T>
class pointer_list {
public:
    int size() const { return size_; }
    T* operator[](int index) const { return items_[index]; }
    T* const* begin() const { return items_; }
    T* const* end() const { return items_ + size_; }

    /* False when memory ran out and nothing changed. */
    bool append(T* item) {
        auto** grown = static_cast<T**>(realloc(items_, bytes(size_ + 1)));
        if (grown == nullptr) {
            return false;
        }
        items_ = grown;
        items_[size_++] = item;
        return true;
    }

    /* Takes the item out of its place and closes the gap. */
    T* take_at(int index) {
        T* item = items_[index];
        size_--;
        memmove(&items_[index], &items_[index + 1], bytes(size_ - index));
        if (size_ == 0) {
            free(items_);
            items_ = nullptr;
        } else if (auto** shrunk = static_cast<T**>(realloc(items_, bytes(size_)))) {
            items_ = shrunk;
        }
        return item;
    }

    /* Gives the whole array away (free), null when it is empty, and begins a new one. */
    T** hand_over(int* count) {
        *count = std::exchange(size_, 0);
        return std::exchange(items_, nullptr);
    }

protected:
    T** items_ = nullptr;

private:
    static size_t bytes(int count) { return static_cast<size_t>(count) * sizeof(T*); }

    int size_ = 0;
};

/* How a definition is copied to the heap and freed with all that it owns: the given texts. */
template <typename T, char* T::*... texts>
struct test_ownership {
    static_assert(std::is_trivially_copyable_v<T>);

    /* Null without memory. */
    static T* duplicate(const T& test) {
        auto* copy = static_cast<T*>(malloc(sizeof(T)));
        if (copy == nullptr) {
            return nullptr;
        }
        *copy = test;
        (..., (copy->*texts = nullptr));
        if (!(... && duplicate_text(test.*texts, &(copy->*texts)))) {
            dispose(copy);
            return nullptr;
        }
        return copy;
    }

    static void dispose(T* test) {
        (..., free(test->*texts));
        free(test);
    }

private:
    static bool duplicate_text(const char* text, char** copy) {
        return text == nullptr || (*copy = strdup(text)) != nullptr;
    }
};

template <typename T, auto id, char* T::*... texts>
class test_list : public pointer_list<T> {
public:
    using id_type = std::remove_reference_t<decltype(std::declval<T&>().*id)>;

    /* For copies that are not the list's: of a check that runs on its own. */
    static T* duplicate(const T& test) { return ownership::duplicate(test); }
    static void dispose(T* test) { ownership::dispose(test); }

    /* The test with this id, or null. */
    T* find(id_type wanted) const {
        int index = index_of(wanted);
        return index < 0 ? nullptr : (*this)[index];
    }

    /* A copy comes last. False for an id that is there already, and without memory. */
    bool add(const T& test) { return find(test.*id) == nullptr && adopt(duplicate(test)); }

    /* As add, for a definition on the heap: it is the list's, or freed at once. Null is refused. */
    bool adopt(T* test) {
        if (test == nullptr) {
            return false;
        }
        if (find(test->*id) != nullptr || !this->append(test)) {
            dispose(test);
            return false;
        }
        return true;
    }

    /* A copy takes the place of the test with the same id, which is freed. False when there is none
     * and without memory. The copy is made first, so `test` may have texts of the old one. */
    bool replace(const T& test) { return find(test.*id) != nullptr && replace_by(duplicate(test)); }

    /* As replace, for a definition on the heap: it is the list's, or freed at once. */
    bool replace_by(T* test) {
        if (test == nullptr) {
            return false;
        }
        int index = index_of(test->*id);
        dispose(index < 0 ? test : std::exchange(this->items_[index], test));
        return index >= 0;
    }

    /* Takes the test out of the list; the caller disposes of it. Null for an unknown id. */
    T* take(id_type wanted) {
        int index = index_of(wanted);
        return index < 0 ? nullptr : this->take_at(index);
    }

    /* False for an unknown id. */
    bool remove(id_type wanted) {
        T* test = take(wanted);
        if (test != nullptr) {
            dispose(test);
        }
        return test != nullptr;
    }

    void clear() {
        while (this->size() > 0) {
            dispose(this->take_at(this->size() - 1));
        }
    }

    /* Calls check(T&) for every test, in their order. True when one of them is new since the last
     * time, whose result is to be sent at once. */
    template <typename Check>
    bool check_each(Check check) const {
        bool first_check = false;
        for (T* test : *this) {
            first_check |= std::exchange(test->isFirstCheck, 0) != 0;
            check(*test);
        }
        return first_check;
    }

private:
    using ownership = test_ownership<T, texts...>;

    int index_of(id_type wanted) const {
        for (int i = 0; i < this->size(); i++) {
            if ((*this)[i]->*id == wanted) {
                return i;
            }
        }
        return -1;
    }
};

#endif
