// a < b && c == 1 in a comment is left alone
#define LIMIT 4096
const char* text = "x < y || 2";
char quote = '<';
std::vector<int> v;
bool f(int a, int b) { return a < b && b != 1'000; }
/* x == y
   z >= 9 */
int g(int n) { return n + 16 - (true ? 1 : 0u); }
