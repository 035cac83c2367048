c++ -std=c++20 hello.cpp -o hello $(pkg-config --cflags --libs tolk)
