// The one translation unit that compiles Asio and Beast themselves
// (BOOST_ASIO_SEPARATE_COMPILATION / BOOST_BEAST_SEPARATE_COMPILATION).
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
