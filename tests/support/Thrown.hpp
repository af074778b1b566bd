// The text of the exception a piece of code throws, checked to be exactly of one type.
#pragma once

#include <string>
#include <typeinfo>

namespace spf_test {

// What `body` throws as `Exception` (and not a type derived from it); otherwise a text that
// says what happened instead, so that a comparison with the expected text shows it.
template <typename Exception, typename Body>
std::string thrownText(Body&& body) {
    try {
        body();
    } catch (const Exception& error) {
        return typeid(error) == typeid(Exception) ? error.what()
                                                  : "wrong type: " + std::string(error.what());
    }
    return "nothing thrown";
}

}  // namespace spf_test
