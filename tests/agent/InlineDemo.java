// A hot loop whose small callees the virtual machine inlines: hot -> step -> square. Each of
// them calls sink, which is kept out of line, so every inlined body keeps a call site of its
// own in the compiled code.
package jitdemo;

public final class InlineDemo {
    private final int[] values = new int[8];

    private static int sink(int value) {
        return value ^ (value >>> 7);
    }

    private static int square(int x) {
        return sink(x * x);
    }

    private int step(int i) {
        int s = square(i & 0xff);
        values[i & 7] += s;
        return sink(s + (i >>> 3));
    }

    int hot(int n) {
        int sum = 0;
        for (int i = 0; i < n; ++i) {
            sum += step(i);
        }
        return sum;
    }

    public static void main(String[] args) {
        InlineDemo demo = new InlineDemo();
        long result = 0;
        for (int round = 0; round < 300; ++round) {
            result += demo.hot(10000);
        }
        System.out.println(result);
    }
}
