// Holds objects, and says how large the heap is. To be run with -Xms equal to -Xmx and -XX:+AlwaysPreTouch.

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

public class Names {
    public static void main(String[] arguments) throws Exception {
        List<byte[]> kept = new ArrayList<>();
        for (int i = 0; i < 150; ++i) {
            byte[] block = new byte[1 << 20];
            Arrays.fill(block, (byte) 1);
            kept.add(block);
        }
        System.out.println("Java heap\t" + Runtime.getRuntime().totalMemory());
        System.out.println("ready");
        System.in.read();
        System.out.println(kept.size());
    }
}
