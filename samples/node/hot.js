// The Node.js part of the demo: one function hot enough for V8 to compile it in several tiers.
function hotLoop(n) {
  let s = 0;
  for (let i = 0; i < n; i++) s = (s + i * 7) % 1000003;
  return s;
}

let total = 0;
for (let k = 0; k < 200; k++) total += hotLoop(50000);
console.log("hotLoop total:", total);
