// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_TESTS_GOLDEN_IDENTIFIERS_H
#define COURIER_TESTS_GOLDEN_IDENTIFIERS_H

// What every compiler must make of these types, with every standard library and for every machine:
// modules built years apart must agree. The numbers come from a separate program, by the texts
// beside them, so that neither a change of the hash nor one of the spelling passes unseen.

#include <courier/hub/core/GenericPayload.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace golden {

enum class Colour : unsigned char { red, green };
struct Class {
    struct Nested;
    int member;
};
template <class> struct Of {
    struct Nested;
    template <class> struct NestedOf;
};
template <class, unsigned = 3, Colour = Colour::green> struct Grid;
template <auto> struct Value;
template <int*> struct Address;
template <int> struct Matrix { struct Row; };
template <int, class, class> struct Mixed;
template <class, int, class> struct Mixed2;
template <class, class, int, int> struct Mixed3;
template <class, class, class, int> struct Mixed4;
template <int, int, class> struct Mixed5;
using Widest [[gnu::mode(TI)]] = unsigned;
inline int object, objects[2];
inline void function() {}

using namespace courier::hub::core;

static_assert(hashTypeText("") == 0x1ED1B5ABBD8399B7);
static_assert(hashTypeText("abc") == 0x68FE5A6E75DA685E);
static_assert(hashTypeText("\x80\xFF") == 0x17846F076B110E00);

#define STRING "std::basic_string<char,std::char_traits<char>,std::allocator<char>>"
// A type's identifier, the text that it is made of, and the type.
#define GOLDEN(id, text, ...) static_assert(getTypeID<__VA_ARGS__>() == id, text)
GOLDEN(0xC55C1E40E35D9522, "bool", bool);
GOLDEN(0x97D544006189876B, "char", char);
GOLDEN(0x320ABBB4A0199159, "signed char", signed char);
GOLDEN(0x33AAED0B55EBC0B5, "unsigned char", unsigned char);
GOLDEN(0xAA5F9EB42905F695, "short", short int);
GOLDEN(0x63B460FA6D0BFE06, "unsigned short", short unsigned int);
GOLDEN(0x717A581CF9B345CB, "int", int);
GOLDEN(0x50B935BC7BC34261, "unsigned int", unsigned);
GOLDEN(0x47A1FD6958DB35F6, "long", long int);
GOLDEN(0x9B8AB9D7A11741B2, "unsigned long", long unsigned int);
GOLDEN(0xDBB99B5D62C7A8C5, "long long", long long int);
GOLDEN(0xE5066CEE1EEF3376, "unsigned long long", long long unsigned int);
GOLDEN(0x8FCAC700C2626142, "float", float);
GOLDEN(0x4C3B1FACE658E2A8, "double", double);
GOLDEN(0xA396E562750D37D7, "long double", long double);
GOLDEN(0x8C58A66E00A17DE2, "wchar_t", wchar_t);
GOLDEN(0xFB0CAD2F494F1836, "char8_t", char8_t);
GOLDEN(0x245260D562189BCC, "std::nullptr_t", std::nullptr_t);
GOLDEN(0x2E5E102D63D03844, "std::byte", std::byte);
GOLDEN(0xF443267B783DDD4E, "courier::hub::core::GenericPayload", GenericPayload);
GOLDEN(0x5BF201F46604C49B, "golden::Class", Class const volatile&);
GOLDEN(0xBE5BDF3A62C3D8A0, "golden::Colour", Colour);
GOLDEN(0x41CB96A3D68ADFD4, "golden::Class::Nested", Class::Nested);
GOLDEN(0x3FAE663A74336806, "char*", char*);
GOLDEN(0x67529C0B289A786D, "char const*", char const*);
GOLDEN(0x79A8C9D7B0F100CF, "char* const*", char* const*);
GOLDEN(0x0A22408874EE3E55, "int volatile**", int volatile**);
GOLDEN(0x787463A71A8AA849, "int[]", int[]);
GOLDEN(0x3FD34AEC5CAC0B68, "int[4][3]", int[3][4]);
GOLDEN(0x0E862DD5CA0C5522, "int[3]*", int (*)[3]);
GOLDEN(0x0D95C81CB61284C5, "void(int,char const*)*", void (*)(int, char const*));
GOLDEN(0xD1A9AC4F5F8ABBBA, "void() noexcept", void() noexcept);
GOLDEN(0x5A26824D3508C113, "int golden::Class::*", int Class::*);
GOLDEN(0xC42C53199C66CBCD, "void()const golden::Class::*", void (Class::*)() const);
GOLDEN(0xAF7753D82442E8FC, "golden::Of<int &>", Of<int&>);
GOLDEN(0xA06A786C3E1D299B, "golden::Of<void() &>", Of<void (&)()>);
GOLDEN(0x90F71170B45950B8, "golden::Of<void()&>", Of<void() &>);
GOLDEN(0x971DAFA4E344B022, "golden::Of<int>", Of<int>);
GOLDEN(0x47BBF2A17902192F, "golden::Of<unsigned int>", Of<unsigned>);
GOLDEN(0x740DDBE562CA0D84, "golden::Of<golden::Of<unsigned long>>", Of<Of<unsigned long>>);
GOLDEN(0x66E77FABFA48F02A, "golden::Of<unsigned long>::Nested", Of<unsigned long>::Nested);
GOLDEN(0x86737B3931E52B16, "golden::Of<std::basic_string<char>>::NestedOf<char*>",
       Of<std::string>::NestedOf<char*>);
GOLDEN(0x42051B64B056BA3E, "golden::Grid<int,(unsigned int)3,(golden::Colour)1>", Grid<int>);
GOLDEN(0x65CE650148331875, "golden::Grid<int,(unsigned int)3,(golden::Colour)7>",
       Grid<int, 3, Colour{7}>);
GOLDEN(0x3FA8D777D287D59B, "golden::Value<(int)3>", Value<3>);
GOLDEN(0x49D82F6006663472, "golden::Value<(unsigned int)3>", Value<3U>);
GOLDEN(0x223847F75480B3B6, "golden::Value<(long long)-3>", Value<-3LL>);
GOLDEN(0x1A1DD69317D868A0, "golden::Value<(bool)1>", Value<true>);
GOLDEN(0x9767A8CA268E5BD1, "golden::Value<(char)97>", Value<'a'>);
GOLDEN(0x41DA815FBB0A89F3, STRING, std::string);
GOLDEN(0x1405EB7073398584, "std::vector<unsigned long,std::allocator<unsigned long>>",
       std::vector<unsigned long>);
GOLDEN(0xD5CDA4D69BC423D9, "std::vector<unsigned long long,std::allocator<unsigned long long>>",
       std::vector<unsigned long long>);
GOLDEN(0xD1B0FE984611CB49,
       "std::map<" STRING ",double,std::less<" STRING ">,std::allocator<std::pair<" STRING
       " const,double>>>",
       std::map<std::string, double>);
GOLDEN(0xAA4D637681EA24BB, "std::basic_istream<char,std::char_traits<char>>", std::istream);
GOLDEN(0x5330436FE023FEE1, "std::unique_ptr<golden::Class,std::default_delete<golden::Class>>",
       std::unique_ptr<Class>);
GOLDEN(0xA1D1568C46BE9A84, "std::function<void(" STRING " const &)>",
       std::function<void(std::string const&)>);
GOLDEN(0xE225847D026CCF9C, "unsigned __int128", Widest);
GOLDEN(0xA6A10575E2E320BA, "int volatile const*", int const volatile*);
GOLDEN(0x2C7F455926157669, "golden::Of<int &&>", Of<int&&>);
GOLDEN(0x07DBFD53B12B0455, "golden::Value<(long long)-9223372036854775808>",
       Value<-9223372036854775807LL - 1>);
GOLDEN(0xD4BAD1A821F4F45C, "golden::Value<(int*)&golden::object>", Value<&object>);
GOLDEN(0x40F2EFC84475D1F5, "golden::Address<(int*)&golden::objects>", Address<objects>);
GOLDEN(0xE513969315605EAB, "golden::Address<(int*)nullptr>", Address<nullptr>);
GOLDEN(0x3AA22AADC0BC409F, "golden::Value<(void()*)&golden::function>", Value<&function>);
GOLDEN(0x7C6CAA2B139DBA59, "golden::Value<(int golden::Class::*)&golden::Class::member>",
       Value<&Class::member>);
GOLDEN(0x83FDCA8143454BAB, "golden::Matrix<3>::Row", Matrix<3>::Row);
GOLDEN(0xEB946ED05C08230F, "golden::Mixed<(int)1,int,char>", Mixed<1, int, char>);
GOLDEN(0x2AA2B691FAD2B121, "golden::Mixed2<int,(int)2,char>", Mixed2<int, 2, char>);
GOLDEN(0x9B676D7F8D4A5293, "golden::Mixed3<int,char,(int)1,(int)2>", Mixed3<int, char, 1, 2>);
GOLDEN(0xEEC5D83515B4E2B7, "golden::Mixed4<int,char,long,(int)2>", Mixed4<int, char, long, 2>);
GOLDEN(0x5F7CCF02EE5FA432, "golden::Mixed5<(int)1,(int)2,char>", Mixed5<1, 2, char>);
GOLDEN(0xAA33D664E201641E, "std::chrono::system_clock", std::chrono::system_clock);
#undef GOLDEN
#undef STRING

} // namespace golden

#endif
