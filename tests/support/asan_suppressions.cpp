// A cancelled thread leaves its frames by forced unwinding, which does not pass the places where the address
// sanitizer takes back the red zones of their variables. Its runtime then complains about itself: about the
// sigaltstack call with which it looks for the very stacks whose red zones it is about to clear.
extern "C" const char *__asan_default_suppressions()
{
    return "interceptor_name:sigaltstack\n";
}
