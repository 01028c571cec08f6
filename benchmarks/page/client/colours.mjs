// A contender has one colour on the whole page, as far as the colours go; two of one work never share
// one while there are others. The first two colours are the library's.
import { curveName } from "../source/growth.mjs";

const ours = 2;
// The points of a growth curve are of one colour.
const colouredName = ({ name, place }) => (place > 0 ? curveName(name) : name);
const isOurs = (name) => /^orvane\b/i.test(name);

export class ContenderColours {
  #palette;
  #wishes = new Map();

  constructor(works, { contenders }) {
    this.#palette = contenders;
    for (const { contenders: ofWork } of works) ofWork.map(colouredName).forEach((name) => this.#wish(name));
  }

  // The colours of these contenders, which stand in one chart.
  pick(contenders) {
    const picked = new Map();
    for (const name of contenders.map(colouredName)) {
      if (!picked.has(name))
        picked.set(name, this.#firstFree(this.#wishes.get(name), new Set(picked.values())));
    }
    return contenders.map((contender) => this.#palette[picked.get(colouredName(contender))]);
  }

  #wish(name) {
    if (this.#wishes.has(name)) return;
    const alike = [...this.#wishes.keys()].filter((other) => isOurs(other) === isOurs(name)).length;
    const others = this.#palette.length - ours;
    this.#wishes.set(name, isOurs(name) ? alike % ours : ours + (alike % others));
  }

  #firstFree(wish, taken) {
    const indexes = this.#palette.map((_, offset) => (wish + offset) % this.#palette.length);
    return indexes.find((index) => !taken.has(index)) ?? wish;
  }
}
