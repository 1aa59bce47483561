#pragma once
// What the JSON library lets pass and we do not: single quotes, NaN and Infinity, integers over 64 bits
// (it clamps them), numbers of a wrong form (it reads their front), control characters in strings. Looks at
// a text in pieces, beside the library.

#include <cstddef>

class krel_json_guard_c {
 public:
  // What is wrong with the piece, or null.
  const char *look(const char *text, size_t length);
  // The text ends here.
  const char *end() { return end_number(); }

 private:
  enum class in_e { STRUCTURE, NUMBER, STRING, ESCAPE };
  // What the last character of a number was.
  enum class number_e { MINUS, ZERO, INTEGER, POINT, FRACTION, E, E_SIGN, EXPONENT, WRONG };

  const char *structure(char c);
  const char *end_number();
  static number_e next(number_e last, char c);

  in_e m_in = in_e::STRUCTURE;
  number_e m_last = number_e::WRONG;
  size_t m_digits = 0;  // characters of the number, also those that found no place
  char m_number[24] = {};
};
