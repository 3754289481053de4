#pragma once

#include <initializer_list>
#include <QtTest>

/// The rows of a data-driven test, in a function "…_data": made with the names of its columns, then called
/// once a row with the row's name and its values.
///     const Table<QByteArray, int> row{"path", "status"};
///     row("outside", "/../x", 403);
template<typename... Types>
class Table {
public:
    template<typename... Names>
    explicit Table(const Names*... names) {
        static_assert(sizeof...(Names) == sizeof...(Types), "a name for each column");
        (QTest::addColumn<Types>(names), ...);
    }
    void operator()(const char* name, const Types&... values) const {
        (QTest::newRow(name) << ... << values);
    }
};

/// A row for each database kind, with the column "kind".
inline void addKinds(std::initializer_list<int> kinds) {
    QTest::addColumn<int>("kind");
    for (const int kind : kinds)
        QTest::addRow("kind %d", kind) << kind;
}
