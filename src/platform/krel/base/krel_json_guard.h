#pragma once
// What the JSON library lets pass and we do not: single quotes, NaN and Infinity, integers over 64 bits
// (it clamps them), control characters in strings. Looks at a text in pieces, beside the library.

#include <cstddef>

class krel_json_guard_c {
 public:
  // What is wrong with the piece, or null.
  const char *look(const char *text, size_t length);
  // The text ends here.
  const char *end() { return end_number(); }

 private:
  enum class in_e { STRUCTURE, NUMBER, STRING, ESCAPE };

  const char *structure(char c);
  const char *end_number();

  in_e m_in = in_e::STRUCTURE;
  bool m_integer = false;  // the number so far has digits and a sign only
  size_t m_digits = 0;     // characters of the number, also those that found no place
  char m_number[24] = {};
};
