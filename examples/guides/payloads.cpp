// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/payloads.md.

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <iostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;

namespace {

struct Order {
    int number;
};
struct Customer {
    std::string name;
};

void writeOrder(Order const& order, Customer const& customer, std::ostream& out) {
    out << order.number << ' ' << customer.name << '\n';
}

std::tuple<Order, Customer> readOrder(std::istream& in) {
    Order order{};
    Customer customer;
    if (!(in >> order.number >> customer.name) || in.get() != '\n') {
        throw std::runtime_error("not an order and its customer");
    }
    return {order, customer};
}

GenericPayload makePayload() {
    GenericPayload payload;
    payload.emplace<Order>(Order{17});
    payload.emplace<Customer>(Customer{"Ada"});
    return payload;
}

ByteBuffer send(Catalogue const& catalogue) {
    GenericSerialiser const serialise = catalogue.getSerialiserFor("line", makePayload());
    ByteBufferOStream out;
    serialise(out);
    return out.release();
}

void receive(Catalogue const& catalogue, ByteBuffer bytes) {
    constexpr auto id = getTypeID<std::tuple<Order, Customer>>();
    ByteBufferIStream in(std::move(bytes));
    GenericPayload const payload = catalogue.getDeserialiserFor("line", id)(in);
    std::cout << payload.get<Customer>(1).name << " ordered " << payload.get<Order>(0).number
              << '\n';
}

// A payload with three elements is refused, not written in part.
void sendTooMuch(Catalogue const& catalogue) {
    GenericPayload payload = makePayload();
    payload.emplace<Customer>(Customer{"Grace"});
    try {
        ByteBufferOStream out;
        catalogue.getSerialiserFor("line", std::move(payload))(out);
    } catch (LookUpError const& error) {
        std::cout << error.what() << " and " << error.typeIDs().size() << " elements\n";
    }
}

} // namespace

int main() {
    Catalogue catalogue;
    addFormat<Order, Customer>(catalogue, "line", writeOrder, readOrder);
    receive(catalogue, send(catalogue));
    sendTooMuch(catalogue);
}
