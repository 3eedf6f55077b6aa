// The same as first_storage.c, in C++: appends two records in one transaction, prints every record.
#include <iostream>
#include <k9erepl/storage.hpp>

int main(int argc, char** argv) {
    const auto settings = k9erepl::Settings().File(argc > 1 ? argv[1] : "first.edb");
    auto storage = k9erepl::Storage::OpenOrCreate(settings).Value();
    auto transaction = storage.Begin().Value();
    transaction.Insert("hello").Value();
    transaction.Insert("replicated world").Value();
    transaction.Commit().Value();
    for (const k9erepl::Record& record : storage.Records()) {
        std::cout << record.rev << ": " << record.Text() << '\n';
    }
}
