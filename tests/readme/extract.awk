# Prints the n-th ```cpp block of a Markdown file (n counts from 1).
/^```cpp/ { inside = (++count == n); next }
/^```/    { inside = 0; next }
inside    { print }
