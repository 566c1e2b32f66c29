/* A secret as somebody gives it: from a terminal without showing it, twice, or as the one line of
 * what standard input is otherwise. Never from the command line, which everybody on the machine can
 * read. */
#ifndef VINDRAL_CTL_SECRET_INPUT_H
#define VINDRAL_CTL_SECRET_INPUT_H

#include <cstddef>
#include <string>

/* A text that is overwritten when it goes. */
class secret_text {
public:
    secret_text() { text_.reserve(most + 2); } /* it never moves */
    ~secret_text();
    secret_text(const secret_text&) = delete;
    secret_text& operator=(const secret_text&) = delete;

    static constexpr size_t most = 4096; /* bytes; longer ones are an error */
    std::string& operator*() { return text_; }

private:
    std::string text_;
};

/* Reads one from the descriptor, which is asked for with `what` ("the secret db") where it is a
 * terminal. Throws failure (usage): nothing came, two lines, two different texts, too long. A
 * signal that ends the program finds the terminal as it was. */
void read_secret(int from, const std::string& what, secret_text& into);

#endif
