// The point cloud in 3-D with three.js (Debian's libjs-three), orbited with the mouse.
'use strict';

class CloudView {
  constructor(container) {
    this.container = container;
    this.renderer = new THREE.WebGLRenderer({ antialias: false, preserveDrawingBuffer: true });
    this.renderer.setClearColor(0x0d0f11);
    container.appendChild(this.renderer.domElement);
    this.scene = new THREE.Scene();
    // Camera frame (x right, y down, z forward) shown as three.js likes it: y up, looking along -z.
    this.camera = new THREE.PerspectiveCamera(60, 752 / 480, 0.05, 100);
    this.camera.position.set(1.5, 1.2, 1.5);
    this.controls = new THREE.OrbitControls(this.camera, this.renderer.domElement);
    this.controls.target.set(0, 0, -2);
    this.controls.addEventListener('change', () => this.render());
    this.scene.add(new THREE.AxesHelper(0.3));
    const grid = new THREE.GridHelper(10, 20, 0x3a4048, 0x24282d);
    grid.position.y = -1;
    this.scene.add(grid);
    this.material = new THREE.PointsMaterial({ size: 0.02, vertexColors: THREE.VertexColors });
    this.points = new THREE.Points(new THREE.BufferGeometry(), this.material);
    this.scene.add(this.points);
    this.controls.update();
    new ResizeObserver(() => this.resize()).observe(container);
  }

  resize() {
    const w = this.container.clientWidth, h = this.container.clientHeight;
    if (!w || !h) return;
    this.renderer.setSize(w, h, false);
    this.renderer.domElement.style.width = '100%';
    this.renderer.domElement.style.height = '100%';
    this.camera.aspect = w / h;
    this.camera.updateProjectionMatrix();
    this.render();
  }

  // `buffer`: uint32 count, count x 3 float32 (camera frame, metres), count grey bytes.
  update(buffer) {
    const count = new DataView(buffer).getUint32(0, true);
    const xyz = new Float32Array(buffer, 4, count * 3);
    const grey = new Uint8Array(buffer, 4 + count * 12, count);
    const position = new Float32Array(count * 3), colour = new Float32Array(count * 3);
    for (let i = 0; i < count; i++) {
      position[3 * i] = xyz[3 * i];
      position[3 * i + 1] = -xyz[3 * i + 1];
      position[3 * i + 2] = -xyz[3 * i + 2];
      colour[3 * i] = colour[3 * i + 1] = colour[3 * i + 2] = 0.15 + 0.85 * grey[i] / 255;
    }
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(position, 3));
    geometry.setAttribute('color', new THREE.BufferAttribute(colour, 3));
    this.points.geometry.dispose();
    this.points.geometry = geometry;
    this.render();
    return count;
  }

  render() { this.renderer.render(this.scene, this.camera); }
}
